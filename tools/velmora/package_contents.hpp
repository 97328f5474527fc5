#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace velmora::front
{

/** What lies in the directory of an unpacked package. */
struct PackageContents
{
    /** Names of entries that no digest or signature covers. */
    std::vector<std::string> uncovered;
    std::size_t payloadFiles = 0;
    /** Of all files that are covered, in bytes. */
    std::uintmax_t size = 0;

    /** "1 entry is not covered: payload/sub", or empty. */
    std::string remark() const;
};

PackageContents contentsOfPayload(const std::filesystem::path& payload);
PackageContents contentsOfPackage(const std::filesystem::path& package);

} // namespace velmora::front
