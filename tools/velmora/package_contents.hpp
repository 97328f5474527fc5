#pragma once

#include "common/archive.hpp"

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

/** @file What lies in a package, and which systems it says it is for. */

namespace velmora::front
{

/** What lies in an archive, in the directory of an unpacked package or in that
 *  of its payload. */
struct PackageContents
{
    /** The files that belong there and their sizes in bytes, by name. */
    std::map<std::string, std::uint64_t> files;
    /** Names of entries that no digest or signature covers. */
    std::vector<std::string> uncovered;

    /** "1 entry is not covered: payload/sub", or empty. */
    std::string remark() const;
    /** What is wrong with it, or empty. No size is looked at. */
    std::string objection() const;
    /** Of all files, in bytes. */
    std::uint64_t size() const;
};

PackageContents contentsOf(const tools::Archive& archive);

/** @param isPayload whether it is a payload, or a whole package */
PackageContents contentsOf(const std::filesystem::path& directory,
                           bool isPayload);

/** Identifiers that a descriptor lists, as they are written. It is for
 *  descriptors that the library has read: only that bounds what one costs. */
std::vector<std::string> systemsOf(const std::string& descriptor);

} // namespace velmora::front
