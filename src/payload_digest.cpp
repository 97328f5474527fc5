#define LOG_BLOCK 6000

#include "files.hpp"
#include "handles.hpp"
#include "log.hpp"
#include "velmora.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <new>
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

/** SHA-256 in steps. After a failed init() no other step may follow: OpenSSL
 *  crashes on a context that is half initialised. */
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
        return EVP_DigestUpdate(context_.get(), data, size) != 0;
    }

    bool finish()
    {
        return EVP_DigestFinal_ex(context_.get(), digest_.data(), nullptr) != 0;
    }

    void release() { context_.reset(); }

    /** Lower-case hexadecimal text of what finish() gave. */
    std::string text() const
    {
        constexpr std::string_view DIGITS = "0123456789abcdef";
        std::string hex;
        hex.reserve(2 * SHA256_SIZE);
        for (const unsigned char byte : digest_)
        {
            hex += DIGITS[byte >> 4];
            hex += DIGITS[byte & 0xF];
        }
        return hex;
    }

  private:
    DigestContext context_{EVP_MD_CTX_new()};
    std::array<unsigned char, SHA256_SIZE> digest_{};
};

/** Opens a file without waiting for the writer of a FIFO. A write lease makes
 *  that open fail with EWOULDBLOCK; a blocking open waits for its end. */
FileDescriptor openFile(const std::string& path)
{
    constexpr int FLAGS = O_RDONLY | O_CLOEXEC;
    const int number = open(path.c_str(), FLAGS | O_NONBLOCK);
    return FileDescriptor(number < 0 && errno == EWOULDBLOCK
                              ? open(path.c_str(), FLAGS)
                              : number);
}

/** @param offset of the first byte, from the start of the file
 *  @return whether all @p size bytes from there on could be read */
bool readPiece(const FileDescriptor& file, char* data, std::size_t size,
               std::uint64_t offset)
{
    while (size > 0)
    {
        const ssize_t count =
            pread(file.get(), data, size, static_cast<off_t>(offset));
        if (count == 0 || (count < 0 && errno != EINTR))
        {
            return false;
        }
        if (count > 0)
        {
            data += count;
            offset += static_cast<std::uint64_t>(count);
            size -= static_cast<std::size_t>(count);
        }
    }
    return true;
}

/** Reserves @p length bytes. Only one piece of them is ever filled, so no more
 *  than that becomes resident. */
std::unique_ptr<char[]> makeReadBuffer(std::uint64_t length)
{
    if (length > std::numeric_limits<std::size_t>::max())
    {
        throw std::bad_alloc();
    }
    return std::make_unique_for_overwrite<char[]>(
        static_cast<std::size_t>(length));
}

/** Gives the file's content to the digest, piece by piece. Reading
 *  stops at the first piece that cannot be read whole.
 *
 *  @param length in bytes
 *  @return whether all of it was digested; failures have been logged */
bool digestContent(const FileDescriptor& file, std::uint64_t length,
                   char* buffer, Sha256& sha)
{
    bool complete = true;
    for (std::uint64_t offset = 0; offset < length; offset += PIECE_SIZE)
    {
        const auto size = static_cast<std::size_t>(
            std::min<std::uint64_t>(PIECE_SIZE, length - offset));
        if (!readPiece(file, buffer, size, offset))
        {
            LOG_FAILURE("a piece of a file could not be read whole");
            return false;
        }
        if (!sha.update(buffer, size))
        {
            LOG_FAILURE("a piece of a file could not be digested");
            complete = false;
        }
    }
    return complete;
}

/** Paths of the regular files of a directory, in the order in which the file
 *  system delivers them; links are followed. Each other entry is logged.
 *
 *  libstdc++'s directory_iterator allocates where it may not throw, and so
 *  ends the process when memory is out.
 *
 *  @throws fs::filesystem_error when the directory or the status of an entry
 *          cannot be read */
std::vector<std::string> regularFiles(const std::string& directory)
{
    const auto fail = [&directory](const char* what)
    {
        const std::error_code error(errno, std::generic_category());
        throw fs::filesystem_error(what, directory, error);
    };
    const DirectoryStream stream(opendir(directory.c_str()));
    if (stream == nullptr)
    {
        fail("cannot open directory");
    }
    std::vector<std::string> paths;
    errno = 0;
    while (const dirent* entry = readdir(stream.get()))
    {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..")
        {
            std::string path = (fs::path(directory) / name).string();
            if (hasType(fs::file_type::regular, fs::status(path), path))
            {
                paths.push_back(std::move(path));
            }
            else
            {
                LOG_NOTE("an entry is not covered: it is no regular file");
            }
        }
        errno = 0;
    }
    if (errno != 0)
    {
        fail("cannot read directory");
    }
    return paths;
}

} // namespace

std::string calculateFileSHA(const std::string& filePath)
{
    FileDescriptor file = openFile(filePath);
    if (!file)
    {
        LOG_FAILURE("a file cannot be opened");
        return {};
    }
    struct statx status{};
    bool complete = statx(file.get(), "", AT_EMPTY_PATH,
                          STATX_TYPE | STATX_SIZE, &status) == 0;
    if (!complete)
    {
        LOG_FAILURE("the status of a file cannot be read");
    }
    else if (!S_ISREG(status.stx_mode))
    {
        LOG_FAILURE("what is no regular file is not digested");
        return {};
    }
    const std::uint64_t length = status.stx_size;
    if (length > PIECE_SIZE)
    {
        // The kernel reads further ahead of us, which a cold file needs.
        posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    }

    Sha256 sha;
    const bool begun = sha.init();
    if (!begun)
    {
        LOG_FAILURE("the digest of a file could not be begun");
    }
    const auto buffer = makeReadBuffer(length);
    complete =
        begun && digestContent(file, length, buffer.get(), sha) && complete;
    file.close();
    if (begun && !sha.finish())
    {
        LOG_FAILURE("the digest of a file could not be finished");
        complete = false;
    }
    sha.release();

    // Not empty: a file that is there must not be left out of a composite. No
    // composite that somebody signed has this text in it.
    std::string shaString =
        complete ? sha.text() : std::string(2 * SHA256_SIZE, '0');
    LOG_INFO("\"Hash for file \" + filePath + \": \" + shaString.str(): ",
             "Hash for file " + filePath + ": " + shaString);
    return shaString;
}

std::string ValidateQOR::getSHAStrFromImage(const std::string& payloadPath)
{
    if (!hasType(fs::file_type::directory, fs::status(payloadPath),
                 payloadPath))
    {
        LOG_FAILURE("the payload is missing or no directory");
        return {};
    }
    std::vector<std::string> paths = regularFiles(payloadPath);
    // std::string compares bytes as unsigned values, whatever the locale.
    std::sort(paths.begin(), paths.end());

    std::vector<std::string> digests;
    digests.reserve(paths.size());
    for (const std::string& path : paths)
    {
        std::string digest = calculateFileSHA(path);
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
        LOG_FAILURE("the payload's digest could not be made");
        return {};
    }
    std::string finalShaString = sha.text();
    LOG_INFO("\"final sha: \" + finalShaString.str(): ",
             "final sha: " + finalShaString);
    return finalShaString;
}
