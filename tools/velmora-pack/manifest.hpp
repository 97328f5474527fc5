#pragma once

#include "files.hpp"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <filesystem>
#include <string_view>

namespace pack
{

inline constexpr std::string_view MANIFEST_MAGIC = "$KTB";

struct ManifestOptions
{
    /** 1 or 2; 0 for a manifest without a release marker. */
    unsigned release = 0;
    /** Bytes that stand before the manifest. */
    std::filesystem::path prefix;
    std::filesystem::path output;
    bool force = false;
};

void makeManifest(const ManifestOptions& options);

/** The file must hold the magic. */
nlohmann::ordered_json describeManifest(const Source& file, Remarks& remarks);

} // namespace pack
