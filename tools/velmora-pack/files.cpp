#include "files.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <system_error>

namespace fs = std::filesystem;

namespace pack
{

namespace
{

constexpr std::uint64_t CHUNK_SIZE = 1U << 20;
constexpr auto TEMPORARY_NAME = ".velmora-pack-XXXXXX";

mode_t currentMask()
{
    const mode_t mask = umask(0);
    umask(mask);
    return mask;
}

fs::path directoryOf(const fs::path& target)
{
    const fs::path parent = target.parent_path();
    return parent.empty() ? fs::path(".") : parent;
}

/** A trailing separator would leave the path without a file name. */
fs::path withoutTrailingSeparator(const fs::path& path)
{
    return path.has_filename() || !path.has_parent_path() ? path
                                                          : path.parent_path();
}

void synchroniseDirectory(const fs::path& directory)
{
    const FileDescriptor file(
        open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // Some file systems cannot synchronise a directory, and say so.
    if (file.get() < 0 || (fsync(file.get()) != 0 && errno != EINVAL))
    {
        throw systemError(directory.string());
    }
}

/** A device or a directory of that name must not be replaced. */
void expectReplaceable(const fs::path& target)
{
    struct stat status = {};
    if (lstat(target.c_str(), &status) != 0)
    {
        if (errno != ENOENT)
        {
            throw systemError(target.string());
        }
    }
    else if (!S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode))
    {
        throw Error(target.string(), "exists and is not a regular file");
    }
}

void renameTo(const fs::path& from, const fs::path& to)
{
    if (rename(from.c_str(), to.c_str()) != 0)
    {
        throw systemError(to.string());
    }
    synchroniseDirectory(directoryOf(to));
}

} // namespace

Source::Source(const fs::path& path, std::string name) :
    name_(name.empty() ? path.string() : std::move(name)),
    // Opening a FIFO would wait for a writer before it could be refused.
    file_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY))
{
    struct stat status = {};
    if (file_.get() < 0 || fstat(file_.get(), &status) != 0)
    {
        throw systemError(name_);
    }
    if (!S_ISREG(status.st_mode))
    {
        throw Error(name_, "is not a regular file");
    }
    size_ = static_cast<std::uint64_t>(status.st_size);
}

Source::Source(Bytes content, std::string name) :
    name_(std::move(name)), file_(tools::memoryFile(textOf(content))),
    size_(content.size())
{
}

void Source::read(std::uint64_t offset, std::span<std::byte> into) const
{
    if (offset > size_ || into.size() > size_ - offset)
    {
        throw Error(name_, "ends too early");
    }
    while (!into.empty())
    {
        const ssize_t count = pread(file_.get(), into.data(), into.size(),
                                    static_cast<off_t>(offset));
        if (count < 0 && errno != EINTR)
        {
            throw systemError(name_);
        }
        if (count == 0)
        {
            throw Error(name_, "became shorter while it was read");
        }
        const auto done = static_cast<std::size_t>(std::max<ssize_t>(count, 0));
        into = into.subspan(done);
        offset += done;
    }
}

Buffer Source::read(std::uint64_t offset, std::uint64_t size) const
{
    if (size > largestFileInMemory)
    {
        throw Error(name_, "is too large: at most " +
                               std::to_string(largestFileInMemory) +
                               " bytes are read");
    }
    Buffer buffer(static_cast<std::size_t>(size));
    read(offset, buffer);
    return buffer;
}

void Source::stream(std::uint64_t offset, std::uint64_t size,
                    const Consumer& consume) const
{
    Buffer chunk(static_cast<std::size_t>(std::min(size, CHUNK_SIZE)));
    while (size > 0)
    {
        throwIfInterrupted();
        const std::span piece = std::span(chunk).first(
            static_cast<std::size_t>(std::min(size, CHUNK_SIZE)));
        read(offset, piece);
        consume(piece);
        offset += piece.size();
        size -= piece.size();
    }
}

void throwIfInterrupted()
{
    if (tools::SignalCleanup::seen() != 0)
    {
        throw Error("interrupted", "nothing was made");
    }
}

OutputFile::OutputFile(fs::path path, mode_t mode) : target(std::move(path))
{
    const bool named = target != STANDARD_OUTPUT;
    if (named)
    {
        expectReplaceable(target);
    }
    const fs::path beside =
        named ? directoryOf(target) : fs::temp_directory_path();
    std::string name = (beside / TEMPORARY_NAME).string();
    file = FileDescriptor(mkostemp(name.data(), O_CLOEXEC));
    if (file.get() < 0)
    {
        throw systemError(target.string());
    }
    temporary = name;
    fchmod(file.get(), mode & ~currentMask());
}

OutputFile::~OutputFile()
{
    if (!temporary.empty())
    {
        unlink(temporary.c_str());
    }
}

void OutputFile::write(Bytes bytes)
{
    tools::writeAll(file, textOf(bytes), target.string());
}

Source OutputFile::readBack() const
{
    if (fsync(file.get()) != 0)
    {
        throw systemError(target.string());
    }
    // What is checked is then what the disk holds, not what memory remembers.
    posix_fadvise(file.get(), 0, 0, POSIX_FADV_DONTNEED);
    return Source(temporary, target.string());
}

void OutputFile::commit()
{
    throwIfInterrupted();
    giveName();
}

void OutputFile::commitBoth(OutputFile& first, OutputFile& second)
{
    throwIfInterrupted();
    first.giveName();
    second.giveName();
}

void OutputFile::giveName()
{
    if (target == STANDARD_OUTPUT)
    {
        const Source made(temporary);
        made.stream(0, made.size(),
                    [](Bytes piece)
                    {
                        std::cout.write(
                            textOf(piece).data(),
                            static_cast<std::streamsize>(piece.size()));
                    });
        return;
    }
    renameTo(temporary, target);
    temporary.clear();
}

OutputDirectory::OutputDirectory(const fs::path& path) :
    target(withoutTrailingSeparator(path))
{
    std::error_code error;
    if (fs::exists(fs::symlink_status(target, error)) &&
        !(fs::is_directory(fs::symlink_status(target, error)) &&
          fs::is_empty(target, error)))
    {
        throw Error(target.string(), "exists and is not an empty directory");
    }
    temporary.emplace(directoryOf(target) / TEMPORARY_NAME);
}

void OutputDirectory::commit()
{
    throwIfInterrupted();
    if (chmod(temporaryPath().c_str(), 0777 & ~currentMask()) != 0)
    {
        throw systemError(target.string());
    }
    synchroniseDirectory(temporaryPath());
    renameTo(temporaryPath(), target);
    temporary->release();
}

void expectCopy(const Source& copy, const Source& original, Bytes tail)
{
    const std::uint64_t size = original.size();
    bool same = copy.size() == size + tail.size() &&
                std::ranges::equal(copy.read(size, tail.size()), tail);
    std::uint64_t offset = 0;
    original.stream(0, same ? size : 0,
                    [&](Bytes piece)
                    {
                        same =
                            same && std::ranges::equal(
                                        copy.read(offset, piece.size()), piece);
                        offset += piece.size();
                    });
    if (!same)
    {
        throw Error(copy.name(), "does not hold on the disk what was written");
    }
}

void writeFile(const fs::path& target, const Source& source, Bytes tail,
               mode_t mode)
{
    OutputFile output(target, mode);
    source.stream(0, source.size(), [&](Bytes piece) { output.write(piece); });
    output.write(tail);
    expectCopy(output.readBack(), source, tail);
    output.commit();
}

std::optional<std::int32_t> sourceDateEpoch()
{
    const char* const text = std::getenv("SOURCE_DATE_EPOCH");
    if (text == nullptr || *text == '\0')
    {
        return std::nullopt;
    }
    const std::string_view view(text);
    std::int32_t seconds = 0;
    const auto [end, error] =
        std::from_chars(view.data(), view.data() + view.size(), seconds);
    if (error != std::errc() || end != view.data() + view.size() || seconds < 0)
    {
        throw Error("SOURCE_DATE_EPOCH",
                    "is not a number of seconds from 0 to 2147483647");
    }
    return seconds;
}

void expectNew(const fs::path& output, const std::vector<fs::path>& inputs,
               bool force)
{
    std::error_code missing;
    for (const fs::path& input : inputs)
    {
        if (fs::equivalent(output, input, missing))
        {
            throw Error(output.string(), "is also an input");
        }
    }
    const fs::file_status status = fs::symlink_status(output, missing);
    if (!force && (fs::is_regular_file(status) || fs::is_symlink(status)))
    {
        throw Error(output.string(), "exists; --force replaces it");
    }
}

void expectNoPrivateKey(const Source& source)
{
    constexpr std::uint64_t lookedAt = 65536;
    const Buffer start = source.read(0, std::min(source.size(), lookedAt));
    const std::string_view text = textOf(start);
    if (text.find("PRIVATE KEY-----") != std::string_view::npos ||
        text.find("PRIVATE KEY BLOCK-----") != std::string_view::npos)
    {
        throw Error(source.name(), "holds a private key");
    }
}

} // namespace pack
