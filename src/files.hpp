#pragma once

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

/** What is there and has no status may be of any type: where time has 32 bits,
 *  that is so from 2038 on. Opening it decides. */
inline bool mayBe(std::filesystem::file_type type,
                  std::filesystem::file_status status)
{
    return status.type() == type ||
           status.type() == std::filesystem::file_type::unknown;
}

inline bool isRegularFile(const std::string& path)
{
    std::error_code ignored;
    return mayBe(std::filesystem::file_type::regular,
                 std::filesystem::status(path, ignored));
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
