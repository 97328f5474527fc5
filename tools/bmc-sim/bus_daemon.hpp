#pragma once

#include <filesystem>
#include <string>

namespace bmc_sim
{

/** Starts a private dbus-daemon with its files in `directory` and waits
 *  until it listens. Gives its address. */
std::string startBusDaemon(const std::filesystem::path& directory);

} // namespace bmc_sim
