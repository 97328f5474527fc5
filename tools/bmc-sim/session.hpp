#pragma once

#include "options.hpp"

#include <filesystem>

namespace bmc_sim
{

/** Where a session runs; the library's places exist there. */
struct Site
{
    /** A directory of bmc-sim's own, for the bus. */
    std::filesystem::path workDirectory;
    /** For supervise(). */
    int lifeline = -1;
};

/** Puts keys and CA in place, starts bus and services, and runs COMMAND.
 *
 *  @return the exit status */
int runSession(const Options& options, const Site& site);

} // namespace bmc_sim
