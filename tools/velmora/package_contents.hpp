#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace velmora::front
{

/** What lies in the directory of an unpacked package or of its payload. */
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

/** @param isPayload whether it is a payload, or a whole package */
PackageContents contentsOf(const std::filesystem::path& directory,
                           bool isPayload);

} // namespace velmora::front
