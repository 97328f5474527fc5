#pragma once

#include <array>

/** The places on a BMC that the library works with. */
namespace bmc_sim::places
{

inline constexpr auto keyringHome = "/etc/gpg/secupkey/.gnupg";
inline constexpr auto slotDirectory = "/var/run/velmora/Zarnholt";
inline constexpr auto updateDirectory = "/var/run/obmcupdate";
inline constexpr auto temporaryDirectory = "/tmp";

inline constexpr auto rootCa =
    "/var/run/obmcupdate/OpenBMCSecureBootRootCA.pem";
inline constexpr auto releaseMarker = "/tmp/ingressRelease";

/** The directories that belong to the library alone. */
inline constexpr std::array ownDirectories{keyringHome, slotDirectory,
                                           updateDirectory};

} // namespace bmc_sim::places
