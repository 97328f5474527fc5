#pragma once

#include <filesystem>

namespace velmora
{

/** Members of a package, each one path component. */
extern const std::filesystem::path descriptorFileName;
extern const std::filesystem::path signatureFileName;
extern const std::filesystem::path payloadName;

} // namespace velmora
