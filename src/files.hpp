#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace velmora
{

/** Members of a package, each one path component. */
inline const std::filesystem::path DESCRIPTOR_FILE_NAME("package.xml");
inline const std::filesystem::path SIGNATURE_FILE_NAME("package.xml.sign");
inline const std::filesystem::path PAYLOAD_NAME("payload");

inline std::string joined(const std::string& directory,
                          const std::filesystem::path& name)
{
    return (std::filesystem::path(directory) / name).string();
}

/** Whether @p status, which is that of @p path, is of a type. Where time has 32
 *  bits, a file dated 2038 or later has an unknown one, and statx tells it. */
inline bool hasType(std::filesystem::file_type type,
                    std::filesystem::file_status status,
                    const std::string& path)
{
    if (status.type() != std::filesystem::file_type::unknown)
    {
        return status.type() == type;
    }
    const unsigned bits =
        type == std::filesystem::file_type::directory ? S_IFDIR : S_IFREG;
    struct statx known{};
    return statx(AT_FDCWD, path.c_str(), 0, STATX_TYPE, &known) == 0 &&
           (known.stx_mode & S_IFMT) == bits;
}

inline bool isRegularFile(const std::string& path)
{
    std::error_code ignored;
    return hasType(std::filesystem::file_type::regular,
                   std::filesystem::status(path, ignored), path);
}

/** Opens nothing else: a directory would open too, and a FIFO would wait. */
inline std::ifstream openRegularFile(const std::string& path)
{
    std::ifstream file;
    if (isRegularFile(path))
    {
        file.open(path, std::ios::binary);
    }
    return file;
}

} // namespace velmora
