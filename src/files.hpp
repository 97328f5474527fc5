#pragma once

#include <filesystem>
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

inline bool isRegularFile(const std::string& path)
{
    std::error_code ignored;
    return std::filesystem::is_regular_file(
        std::filesystem::status(path, ignored));
}

} // namespace velmora
