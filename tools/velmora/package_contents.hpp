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
    /** Entries that no digest or signature covers, the first ones by name. */
    std::vector<std::string> uncovered;
    std::size_t uncoveredCount = 0;
    std::size_t payloadFiles = 0;
    /** Of all files that are covered, in bytes. */
    std::uintmax_t size = 0;

    void addPayload(const std::filesystem::path& payload);
    void addPackage(const std::filesystem::path& package);
    /** "1 entry is not covered: payload/sub", or empty. */
    std::string remark() const;

  private:
    void add(const std::filesystem::directory_entry& entry, bool belongs,
             const std::string& name);
};

} // namespace velmora::front
