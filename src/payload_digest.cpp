#include "handles.hpp"
#include "log.hpp"
#include "velmora.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace
{

using namespace velmora;
namespace fs = std::filesystem;

/** A file is digested in pieces of this many bytes. */
constexpr std::size_t PIECE_SIZE = std::size_t{10} * 1024 * 1024;
constexpr std::size_t SHA256_SIZE = 32;

/** SHA-256 in steps. A step on a context that could not be made, or that was
 *  not initialised, fails. */
class Sha256
{
  public:
    bool init()
    {
        return context_ != nullptr &&
               EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) != 0;
    }

    bool update(const char* data, std::size_t size)
    {
        return context_ != nullptr &&
               EVP_DigestUpdate(context_.get(), data, size) != 0;
    }

    bool finish()
    {
        return context_ != nullptr &&
               EVP_DigestFinal_ex(context_.get(), digest_.data(), nullptr) != 0;
    }

    void release() { context_.reset(); }

    /** Lower-case hexadecimal text of what finish() gave. */
    std::string text() const
    {
        constexpr std::string_view digits = "0123456789abcdef";
        std::array<char, 2 * SHA256_SIZE> hex{};
        for (std::size_t i = 0; i < digest_.size(); ++i)
        {
            hex[2 * i] = digits[digest_[i] >> 4];
            hex[2 * i + 1] = digits[digest_[i] & 0xF];
        }
        return {hex.data(), hex.size()};
    }

  private:
    DigestContext context_{EVP_MD_CTX_new()};
    std::array<unsigned char, SHA256_SIZE> digest_{};
};

/** A file that is read piece by piece. */
class InputFile
{
  public:
    /** Does not wait for a writer where the path is a FIFO. */
    explicit InputFile(const std::string& path) :
        descriptor_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK))
    {
    }

    /** @return bytes, nothing when it is not open or has no length */
    std::optional<std::uint64_t> length() const
    {
        const off_t end =
            descriptor_ ? lseek(descriptor_.get(), 0, SEEK_END) : off_t{-1};
        // Directories and devices mostly tell none or an absurd one; what is
        // left of them cannot be read, or is read like a file. To ask for the
        // status of each file would cost as much as the digest of a small one.
        const bool usual = end > 0 && end < off_t{PIECE_SIZE};
        if (end < 0 || (!usual && !isRegular()))
        {
            return std::nullopt;
        }
        return static_cast<std::uint64_t>(end);
    }

    /** @param offset of the first byte, from the start of the file
     *  @return whether all @p size bytes from there on could be read */
    bool read(char* data, std::size_t size, std::uint64_t offset) const
    {
        while (size > 0)
        {
            const ssize_t count = pread(descriptor_.get(), data, size,
                                        static_cast<off_t>(offset));
            if (count > 0)
            {
                data += count;
                offset += static_cast<std::uint64_t>(count);
                size -= static_cast<std::size_t>(count);
            }
            else if (count == 0 || errno != EINTR)
            {
                return false;
            }
        }
        return true;
    }

  private:
    bool isRegular() const
    {
        struct stat status{};
        return fstat(descriptor_.get(), &status) == 0 &&
               S_ISREG(status.st_mode);
    }

    Descriptor descriptor_;
};

/** Regular files of a directory, in the order in which the file system delivers
 *  them; links are followed.
 *
 *  libstdc++'s directory_iterator allocates where it may not throw, and so
 *  ends the process when memory is out. */
class Directory
{
  public:
    /** @throws fs::filesystem_error when it cannot be opened */
    explicit Directory(const std::string& path) :
        prefix_(path.ends_with('/') ? path : path + '/'),
        stream_(opendir(path.c_str()))
    {
        if (stream_ == nullptr)
        {
            fail("cannot open directory", errno);
        }
    }

    struct Entry
    {
        std::string name;
        bool regular;
    };

    /** Path of an entry. */
    std::string pathOf(std::string_view name) const
    {
        return std::string(prefix_).append(name);
    }

    /** @return the next entry but "." and "..", nothing at the end
     *  @throws fs::filesystem_error when the directory or the status of an
     *          entry cannot be read */
    std::optional<Entry> next()
    {
        errno = 0;
        while (const dirent* entry = readdir(stream_.get()))
        {
            const std::string_view name = entry->d_name;
            if (name != "." && name != "..")
            {
                return Entry{std::string(name),
                             isFile(name, entry->d_type == DT_REG)};
            }
        }
        if (errno != 0)
        {
            fail("cannot read directory", errno);
        }
        return std::nullopt;
    }

  private:
    /** @param listed whether the directory lists it as a file. Its status then
     *         costs as much as its digest and says the same, wherever there is
     *         one: that takes the right to search the directory, which the
     *         first entry shows for all, and a path that is short enough. */
    bool isFile(std::string_view name, bool listed)
    {
        if (listed && searched_ && prefix_.size() + name.size() < PATH_MAX)
        {
            return true;
        }
        const fs::file_status status = fs::status(pathOf(name));
        searched_ = true;
        return fs::is_regular_file(status);
    }

    [[noreturn]] void fail(const char* what, int error) const
    {
        throw fs::filesystem_error(
            what, prefix_, std::error_code(error, std::generic_category()));
    }

    std::string prefix_;
    DirectoryStream stream_;
    bool searched_ = false;
};

/** Asks for large pages where a buffer is filled again and again; without them
 *  its faults and look-ups cost some two hundredths of the digest's time. */
void adviseLargePages(char* buffer, std::size_t size)
{
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void* start = buffer;
    if (std::align(page, page, start, size) != nullptr)
    {
        madvise(start, size, MADV_HUGEPAGE);
    }
}

/** Reserves @p length bytes. Only one piece of them is ever filled, so no more
 *  than that becomes resident. */
std::unique_ptr<char[]> makeReadBuffer(std::uint64_t length)
{
    if (length > std::numeric_limits<std::size_t>::max())
    {
        throw std::bad_alloc();
    }
    auto buffer = std::make_unique_for_overwrite<char[]>(
        static_cast<std::size_t>(length));
    if (length >= PIECE_SIZE)
    {
        adviseLargePages(buffer.get(), PIECE_SIZE);
    }
    return buffer;
}

} // namespace

std::string calculateFileSHA(const std::string& filePath)
{
    const InputFile file(filePath);
    const auto length = file.length();
    if (!length)
    {
        cerrFailure();
        return {};
    }

    // A digest that misses a step is not the file's: each failure is logged,
    // the rest is gone through, and the text stays empty.
    bool complete = true;
    Sha256 sha;
    if (!sha.init())
    {
        cerrFailure();
        complete = false;
    }
    const auto buffer = makeReadBuffer(*length);
    for (std::uint64_t offset = 0; offset < *length; offset += PIECE_SIZE)
    {
        const auto size = static_cast<std::size_t>(
            std::min<std::uint64_t>(*length - offset, PIECE_SIZE));
        if (!file.read(buffer.get(), size, offset) ||
            !sha.update(buffer.get(), size))
        {
            cerrFailure();
            complete = false;
        }
    }
    if (!sha.finish())
    {
        cerrFailure();
        complete = false;
    }
    sha.release();

    std::string shaString = complete ? sha.text() : std::string();
    cerrLine(__builtin_LINE(),
             {" [INFO ",
              "\"Hash for file \" + filePath + \": \" + shaString.str(): ",
              "Hash for file ", filePath, ": ", shaString, "]"});
    return shaString;
}

std::string ValidateQOR::getSHAStrFromImage(const std::string& payloadPath)
{
    if (!fs::is_directory(fs::status(payloadPath)))
    {
        cerrFailure();
        return {};
    }
    std::vector<std::string> names;
    Directory directory(payloadPath);
    while (auto entry = directory.next())
    {
        if (entry->regular)
        {
            names.push_back(std::move(entry->name));
        }
        else
        {
            cerrFailure();
        }
    }
    // The paths differ in their names alone; std::string compares bytes as
    // unsigned values, whatever the locale.
    std::sort(names.begin(), names.end());

    std::vector<std::string> digests;
    digests.reserve(names.size());
    for (const std::string& name : names)
    {
        std::string digest = calculateFileSHA(directory.pathOf(name));
        if (!digest.empty())
        {
            digests.push_back(std::move(digest));
        }
    }

    Sha256 sha;
    const bool complete =
        sha.init() &&
        std::all_of(digests.begin(), digests.end(),
                    [&sha](const std::string& digest)
                    { return sha.update(digest.data(), digest.size()); }) &&
        sha.finish();
    sha.release();
    if (!complete)
    {
        cerrFailure();
        return {};
    }
    std::string finalShaString = sha.text();
    cerrInfo("\"final sha: \" + finalShaString.str(): ",
             "final sha: " + finalShaString);
    return finalShaString;
}
