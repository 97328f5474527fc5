#include "files.hpp"

#include "error.hpp"
#include "signals.hpp"

#include <fcntl.h>
#include <sys/mman.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace fs = std::filesystem;

namespace tools
{
namespace
{

/** A package may hold directories that do not let their owner in. */
void openDirectories(const fs::path& top)
{
    std::error_code ignored;
    for (fs::recursive_directory_iterator
             entry(top, fs::directory_options::skip_permission_denied, ignored),
         end;
         !ignored && entry != end; entry.increment(ignored))
    {
        std::error_code unknown;
        if (entry->symlink_status(unknown).type() == fs::file_type::directory)
        {
            fs::permissions(entry->path(), fs::perms::owner_all,
                            fs::perm_options::add, ignored);
        }
    }
}

fs::path placeForTemporaryFiles()
{
    const char* const named = std::getenv("TMPDIR");
    const fs::path place = named == nullptr || *named == '\0' ? "/tmp" : named;
    std::error_code unknown;
    if (!fs::is_directory(place, unknown))
    {
        throw Error(place.string(),
                    "is no directory for temporary files (TMPDIR)");
    }
    // It may look like an option of a program.
    return fs::absolute(place);
}

} // namespace

TemporaryDirectory::TemporaryDirectory() :
    TemporaryDirectory((placeForTemporaryFiles() / "velmora-XXXXXX").string())
{
}

TemporaryDirectory::TemporaryDirectory(std::string pattern)
{
    const SignalDelay delay;
    if (mkdtemp(pattern.data()) == nullptr)
    {
        throw systemError("cannot make a temporary directory in " +
                          fs::path(pattern).parent_path().string());
    }
    path_ = pattern;
    // A umask may have left its owner out.
    fs::permissions(path_, fs::perms::owner_all);
    removeOnSignal(path_.c_str());
}

TemporaryDirectory::~TemporaryDirectory()
{
    const SignalDelay delay;
    // gpg ends later than it answers: under another name, it adds nothing.
    fs::path left = path_.string() + '~';
    std::error_code ignored;
    fs::rename(path_, left, ignored);
    left = ignored ? path_ : left;
    openDirectories(left);
    fs::remove_all(left, ignored);
    keepOnSignal(path_.c_str());
}

void openStandardStreams()
{
    int number = STDIN_FILENO;
    while (number <= STDERR_FILENO)
    {
        number = open("/dev/null", O_RDONLY);
        if (number < 0)
        {
            throw systemError("/dev/null");
        }
    }
    close(number);
}

FileDescriptor memoryFile(std::string_view content)
{
    FileDescriptor file(memfd_create("velmora", MFD_CLOEXEC));
    if (file.get() < 0)
    {
        throw systemError("a file in memory");
    }
    writeAll(file, content, "a file in memory");
    lseek(file.get(), 0, SEEK_SET);
    return file;
}

std::string readAll(const FileDescriptor& file, std::string_view name)
{
    std::string text;
    std::array<char, 16384> piece{};
    for (;;)
    {
        const ssize_t count = read(file.get(), piece.data(), piece.size());
        if (count < 0 && errno != EINTR)
        {
            throw systemError(name);
        }
        if (count == 0)
        {
            return text;
        }
        if (count > 0)
        {
            text.append(piece.data(), static_cast<std::size_t>(count));
        }
    }
}

void writeAll(const FileDescriptor& file, std::string_view content,
              std::string_view name)
{
    while (!content.empty())
    {
        const ssize_t count = write(file.get(), content.data(), content.size());
        if (count < 0 && errno != EINTR)
        {
            throw systemError(name);
        }
        content.remove_prefix(count > 0 ? static_cast<std::size_t>(count) : 0);
    }
}

std::string readFile(const fs::path& path)
{
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0)
    {
        throw systemError(path.string());
    }
    return readAll(file, path.string());
}

} // namespace tools
