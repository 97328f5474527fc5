#pragma once

#include <filesystem>

namespace pack
{

/** Makes a complete set of keys and certificates for trying things out. */
void makeTestKeys(const std::filesystem::path& directory);

} // namespace pack
