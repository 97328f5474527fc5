#pragma once

#include "files.hpp"
#include "signing.hpp"

#include <nlohmann/json.hpp>

#include <filesystem>

namespace pack
{

struct ImageOptions
{
    std::filesystem::path input;
    /** Checks a signature that was made elsewhere. */
    std::filesystem::path publicKey;
    Signing signing;
};

void makeImage(const ImageOptions& options);

nlohmann::ordered_json describeImage(const Source& file, Remarks& remarks);

} // namespace pack
