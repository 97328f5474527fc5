#pragma once

#include <filesystem>
#include <vector>

namespace bmc_sim
{

struct KeyFile
{
    /** As the user knows it. */
    std::filesystem::path name;
    /** Where it can be read. */
    std::filesystem::path file;
};

/** Imports public keys into the library's keyring home and gives them
 *  ultimate trust, so that their signatures are fully valid. */
void importKeys(const std::vector<KeyFile>& files);

} // namespace bmc_sim
