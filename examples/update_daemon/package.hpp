#pragma once

#include "files.hpp"

#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

/** @file What arrives is bounded before anything of it is unpacked. */

namespace update_daemon
{

/** What a package may have when it is packed, and when it is unpacked; no file
 *  can grow beyond it. In bytes. */
constexpr std::uintmax_t MAX_SIZE = std::uintmax_t{256} * 1024 * 1024;
constexpr zip_int64_t MAX_MEMBERS = 1000;
/** Of a signature file, in bytes: GnuPG takes its time for many signatures. */
constexpr std::uintmax_t MAX_SIGNATURE = 65536;

/** The package is refused, for a reason that this daemon has itself. */
class Refusal : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

/** Copies the package, which whoever sent it can still change. Its own name
 *  never reaches the extractor, for which some characters are special. */
inline void takeOver(const fs::path& package, const fs::path& copy)
{
    // Opening a FIFO must not block.
    const FileDescriptor from(package, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    struct stat status = {};
    if (fstat(from.get(), &status) != 0)
    {
        failWithErrno(package.string());
    }
    if (!S_ISREG(status.st_mode))
    {
        throw Refusal("it is not a regular file");
    }
    const FileDescriptor to(copy, O_WRONLY | O_CREAT | O_EXCL);
    std::array<char, PIECE_SIZE> piece{};
    std::uintmax_t total = 0;
    ssize_t size = 0;
    while ((size = read(from.get(), piece.data(), piece.size())) > 0)
    {
        total += static_cast<std::size_t>(size);
        if (total > MAX_SIZE)
        {
            throw Refusal("it is larger than 256 MiB");
        }
        writeAll(to, piece.data(), static_cast<std::size_t>(size));
    }
    if (size < 0)
    {
        failWithErrno(package.string());
    }
}

/** The files of a package with their sizes in bytes, by their names in it. */
using Members = std::map<std::string, std::uintmax_t>;

inline bool isPartOfPackage(std::string_view name)
{
    constexpr std::string_view PAYLOAD = "payload/";
    return name == "package.xml" || name == "package.xml.sign" ||
           (name.size() > PAYLOAD.size() && name.starts_with(PAYLOAD) &&
            name.find('/', PAYLOAD.size()) == std::string_view::npos);
}

/** Links and devices are members with a type of their own. */
inline bool hasType(zip_t* archive, zip_uint64_t index, mode_t type)
{
    zip_uint8_t system = 0;
    zip_uint32_t attributes = 0;
    if (zip_file_get_external_attributes(archive, index, 0, &system,
                                         &attributes) != 0)
    {
        return false;
    }
    const mode_t mode = system == ZIP_OPSYS_UNIX ? attributes >> 16 : 0;
    return (mode & S_IFMT) == 0 || (mode & S_IFMT) == type;
}

/** Looks at what the archive lists before anything of it is unpacked. */
inline Members membersOf(const fs::path& package)
{
    int error = 0;
    const std::unique_ptr<zip_t, void (*)(zip_t*)> archive(
        zip_open(package.c_str(), ZIP_RDONLY, &error), zip_discard);
    if (!archive)
    {
        throw Refusal("it is no ZIP archive");
    }
    const zip_int64_t count = zip_get_num_entries(archive.get(), 0);
    if (count > MAX_MEMBERS)
    {
        throw Refusal("it has more than 1000 members");
    }
    Members members;
    std::uintmax_t left = MAX_SIZE;
    for (zip_uint64_t i = 0; i < static_cast<zip_uint64_t>(count); ++i)
    {
        constexpr zip_uint64_t NEEDED =
            ZIP_STAT_NAME | ZIP_STAT_SIZE | ZIP_STAT_ENCRYPTION_METHOD;
        zip_stat_t status;
        if (zip_stat_index(archive.get(), i, ZIP_FL_ENC_RAW, &status) != 0 ||
            (status.valid & NEEDED) != NEEDED)
        {
            throw Refusal("its list of members is damaged");
        }
        if (status.name == std::string_view("payload/") &&
            hasType(archive.get(), i, S_IFDIR))
        {
            continue;
        }
        if (!isPartOfPackage(status.name) ||
            !hasType(archive.get(), i, S_IFREG) ||
            status.encryption_method != ZIP_EM_NONE ||
            !members.emplace(status.name, status.size).second)
        {
            throw Refusal("it holds something besides descriptor, signature "
                          "and the payload's plain files, each once");
        }
        if (status.size > left)
        {
            throw Refusal("unpacked it is larger than 256 MiB");
        }
        if (status.name == std::string_view("package.xml.sign") &&
            status.size > MAX_SIGNATURE)
        {
            throw Refusal("its signature file is larger than 64 KiB");
        }
        left -= status.size;
    }
    return members;
}

/** When the disk is full, the extractor's answer reads as if the package were
 *  to blame. */
inline void expectRoom(const Members& members, const fs::path& directory)
{
    constexpr std::uintmax_t BLOCK_SIZE = 4096;
    std::uintmax_t needed = 0;
    for (const auto& [name, size] : members)
    {
        needed += size + BLOCK_SIZE;
    }
    if (fs::space(directory).available < needed)
    {
        throw std::runtime_error("no room is left in " + directory.string());
    }
}

/** Refuses what the list did not announce. A listed size may be untrue. */
inline void expectJust(const Members& members, const fs::path& directory)
try
{
    std::size_t found = 0;
    for (const fs::directory_entry& entry :
         fs::recursive_directory_iterator(directory))
    {
        const std::string name =
            entry.path().lexically_relative(directory).string();
        const fs::file_type type = entry.symlink_status().type();
        if (name == "payload" && type == fs::file_type::directory)
        {
            continue;
        }
        const auto member = members.find(name);
        if (member == members.end() || type != fs::file_type::regular ||
            entry.file_size() != member->second ||
            access(entry.path().c_str(), R_OK) != 0)
        {
            throw Refusal("what was unpacked is not what it lists");
        }
        ++found;
    }
    if (found != members.size())
    {
        throw Refusal("what was unpacked is not what it lists");
    }
}
catch (const fs::filesystem_error& e)
{
    if (e.code() == std::errc::permission_denied)
    {
        throw Refusal("what was unpacked cannot be read");
    }
    throw;
}

} // namespace update_daemon
