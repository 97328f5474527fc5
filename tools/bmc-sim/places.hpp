#pragma once

#include <array>

/** The places on a BMC that the library works with. It says /var/run, which is
 *  a link to /run. */
namespace bmc_sim::places
{

inline constexpr auto KEYRING_HOME = "/etc/gpg/secupkey/.gnupg";
inline constexpr auto SLOT_DIRECTORY = "/run/velmora/Zarnholt";
inline constexpr auto UPDATE_DIRECTORY = "/run/obmcupdate";
inline constexpr auto TEMPORARY_DIRECTORY = "/tmp";

inline constexpr auto ROOT_CA = "/run/obmcupdate/OpenBMCSecureBootRootCA.pem";
inline constexpr auto RELEASE_MARKER = "/tmp/ingressRelease";

/** The directories that belong to the library alone. */
inline constexpr std::array OWN_DIRECTORIES{KEYRING_HOME, SLOT_DIRECTORY,
                                            UPDATE_DIRECTORY};

} // namespace bmc_sim::places
