#pragma once

#include <array>
#include <string_view>
#include <utility>

/** A few lines of what a platform's generator makes of the interface: without
 *  this system's entries, or with them. */

#ifdef WITH_ENTRIES
#define ENTRIES                                                                \
    , SEPBP, BIOS, CPLD, TORLU, FLOPCPLD, TPM, RFCMCU, VALVEMCU, LEAKMCU
#else
#define ENTRIES
#endif

namespace sdbusplus::common::xyz::openbmc_project::software
{

struct Version
{
    enum class VersionPurpose
    {
        Unknown,
        Other,
        System,
        BMC,
        Host,
        PSU ENTRIES
    };

#ifndef WITHOUT_RELEASE_TYPE
    enum class ReleaseType
    {
        Other,
        Production,
        Prototype
    };
#endif
};

namespace details
{

inline constexpr std::array<
    std::pair<Version::VersionPurpose, std::string_view>, 2>
    mappingVersionVersionPurpose{{{Version::VersionPurpose::Unknown, "Unknown"},
                                  {Version::VersionPurpose::Other, "Other"}}};

} // namespace details

} // namespace sdbusplus::common::xyz::openbmc_project::software
