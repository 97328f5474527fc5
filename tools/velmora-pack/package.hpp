#pragma once

#include "files.hpp"
#include "signing.hpp"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <string>
#include <vector>

namespace pack
{

struct PackageOptions
{
    /** A file, or a directory of files. */
    std::filesystem::path payload;
    std::string model;
    std::string version;
    std::vector<std::string> systemIds;
    std::filesystem::path gpgHome;
    /** The machine's keyring, if it is known. */
    Trust trust;
    Signing signing;
};

void makePackage(const PackageOptions& options);

nlohmann::ordered_json describePackage(const Source& file, Remarks& remarks);

} // namespace pack
