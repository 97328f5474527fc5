#pragma once

#include <filesystem>
#include <string>

namespace bmc_sim
{

/** Starts a private dbus-daemon with its files in @p directory and waits until
 *  it listens.
 *
 *  @return its address */
std::string startBusDaemon(const std::filesystem::path& directory);

} // namespace bmc_sim
