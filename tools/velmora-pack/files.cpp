#include "files.hpp"

#include "common/progress.hpp"
#include "common/signals.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <system_error>

namespace fs = std::filesystem;

namespace pack
{
namespace
{

constexpr std::uint64_t CHUNK_SIZE = 256U << 10;
/** Of a file's start, in bytes. */
constexpr std::uint64_t SEARCHED_FOR_KEYS = 65536;
constexpr auto TEMPORARY_NAME = ".velmora-pack-XXXXXX";

fs::path directoryOf(const fs::path& target)
{
    const fs::path parent = target.parent_path();
    std::error_code missing;
    const fs::path directory = target == STANDARD_OUTPUT
                                   ? tools::placeForTemporaryFiles()
                               : parent.empty() ? "."
                                                : parent;
    if (!fs::is_directory(directory, missing))
    {
        throw Error(target.string(), "there is no directory to make it in");
    }
    return directory;
}

/** Changes places with @p to if that is to be replaced. */
int renameFile(const fs::path& from, const fs::path& to, bool replaces)
{
    const int result = renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(),
                                 replaces ? RENAME_EXCHANGE : RENAME_NOREPLACE);
    // Not every file system knows these flags.
    return result == 0 || errno != EINVAL ? result
           : replaces || fs::is_directory(from)
               ? rename(from.c_str(), to.c_str())
               : link(from.c_str(), to.c_str());
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
    if (size > LARGEST_FILE_IN_MEMORY)
    {
        throw Error(name_, "is too large: at most " +
                               std::to_string(LARGEST_FILE_IN_MEMORY) +
                               " bytes are read");
    }
    Buffer buffer(static_cast<std::size_t>(size));
    read(offset, buffer);
    return buffer;
}

void Source::stream(std::uint64_t size, const Consumer& consume) const
{
    const tools::Progress progress(size);
    Buffer buffer(static_cast<std::size_t>(std::min(size, CHUNK_SIZE)));
    for (std::uint64_t offset = 0; offset < size; offset += CHUNK_SIZE)
    {
        const auto piece = std::span(buffer).first(
            static_cast<std::size_t>(std::min(size - offset, CHUNK_SIZE)));
        read(offset, piece);
        consume(piece);
        tools::Progress::advance(piece.size());
    }
}

Output::Output(const fs::path& target, bool force) :
    // A trailing separator would leave the path without a file name.
    target_(target.has_filename() ? target : target.parent_path()),
    force_(force), directory_((directoryOf(target_) / TEMPORARY_NAME).string())
{
}

void Output::commit(const Output* other) const
{
    // Who reads standard output may be slow.
    std::optional<tools::SignalDelay> delay;
    if (target_ != STANDARD_OUTPUT)
    {
        delay.emplace();
    }
    const bool isExchanged = renameToTarget();
    try
    {
        if (other != nullptr)
        {
            other->renameToTarget();
        }
    }
    catch (...)
    {
        isExchanged ? renameFile(path(), target_, true)
                    : unlink(target_.c_str());
        throw;
    }
}

bool Output::renameToTarget() const
{
    if (target_ == STANDARD_OUTPUT)
    {
        const Source made(path());
        const FileDescriptor output(dup(STDOUT_FILENO));
        made.stream(
            made.size(), [&](Bytes piece)
            { tools::writeAll(output, textOf(piece), "standard output"); });
        return false;
    }
    std::error_code missing;
    const bool replaces =
        force_ && fs::exists(fs::symlink_status(target_, missing));
    if (renameFile(path(), target_, replaces) != 0)
    {
        throw systemError(target_.string());
    }
    return replaces;
}

OutputFile::OutputFile(const fs::path& target, bool force) :
    Output(target, force),
    file_(open(path().c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666))
{
    if (file_.get() < 0)
    {
        throw systemError(target.string());
    }
}

void OutputFile::write(Bytes bytes)
{
    tools::writeAll(file_, textOf(bytes), target().string());
}

void writeFile(const fs::path& target, bool force, const Source& source,
               Bytes tail, const std::function<void(const Source&)>& check)
{
    OutputFile output(target, force);
    source.stream(source.size(), [&](Bytes piece) { output.write(piece); });
    output.write(tail);
    check(output.readBack());
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

void refuseOverwrite(const fs::path& output,
                     const std::vector<fs::path>& inputs, bool force)
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
    const bool isReplaceable =
        fs::is_regular_file(status) || fs::is_symlink(status);
    if (fs::exists(status) && !(force && isReplaceable))
    {
        throw Error(output.string(), isReplaceable
                                         ? "exists; --force replaces it"
                                         : "exists and is not a regular file");
    }
}

void expectNoPrivateKey(const Source& source)
{
    const Buffer start =
        source.read(0, std::min(source.size(), SEARCHED_FOR_KEYS));
    const std::string_view text = textOf(start);
    if (text.find("PRIVATE KEY-----") != std::string_view::npos ||
        text.find("PRIVATE KEY BLOCK-----") != std::string_view::npos)
    {
        throw Error(source.name(), "holds a private key");
    }
}

} // namespace pack
