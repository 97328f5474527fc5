#include "files.hpp"

#include "common/progress.hpp"

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
    const fs::path directory =
        target.has_parent_path() ? target.parent_path() : ".";
    std::error_code missing;
    if (!fs::is_directory(directory, missing))
    {
        throw Error(target.string(), "there is no directory to make it in");
    }
    return directory;
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
    force_(force), directory_((directoryOf(target_) / TEMPORARY_NAME).string()),
    path_(directory_.path() / "made")
{
}

void Output::renameToTarget() const
{
    const char* const from = path_.c_str();
    const char* const to = target_.c_str();
    // A directory takes only the place of an empty one.
    const bool mayReplace = force_ || fs::is_directory(path_);
    int result =
        mayReplace ? rename(from, to)
                   : renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE);
    if (result != 0 && errno == EINVAL && !mayReplace)
    {
        // Not every file system knows the flag.
        result = link(from, to);
    }
    if (result != 0)
    {
        throw systemError(target_.string());
    }
}

void writeFile(const fs::path& target, bool force, const Source& source,
               Bytes tail, const std::function<void(const Source&)>& check)
{
    const Output output(target, force);
    const FileDescriptor file(open(
        output.path().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (file.get() < 0)
    {
        throw systemError(target.string());
    }
    const auto write = [&](Bytes piece)
    { tools::writeAll(file, textOf(piece), target.string()); };
    source.stream(source.size(), write);
    write(tail);
    check(output.readBack());
    output.renameToTarget();
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
    const fs::path directory = fs::absolute(output).parent_path();
    for (const fs::path& input : inputs)
    {
        if (fs::equivalent(output, input, missing))
        {
            throw Error(output.string(), "is also an input");
        }
        if (fs::equivalent(directory, input, missing))
        {
            throw Error(output.string(),
                        "lies in " + input.string() + ", which is an input");
        }
    }
    if (!output.has_filename())
    {
        throw Error(output.string(), "names a directory, not a file");
    }
    const fs::file_status status = fs::symlink_status(output, missing);
    // A link to something else, such as /dev/stdout, is to stay.
    const fs::file_status target = fs::status(output, missing);
    const bool isReplaceable =
        fs::is_regular_file(target) || !fs::exists(target);
    if (fs::exists(status) && !(force && isReplaceable))
    {
        throw Error(output.string(), isReplaceable
                                         ? "exists; --force replaces it"
                                         : "exists and is not a regular file");
    }
}

void expectNewDirectory(const fs::path& output)
{
    std::error_code missing;
    if (fs::exists(fs::symlink_status(output, missing)) &&
        !(fs::is_directory(output, missing) && fs::is_empty(output, missing)))
    {
        throw Error(output.string(), "exists and is not an empty directory");
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
