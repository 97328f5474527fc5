#pragma once

#include "options.hpp"

#include <filesystem>

namespace bmc_sim
{

/** Where a session finds its things; the library's places exist. */
struct Site
{
    /** A directory of bmc-sim's own, for the bus. */
    std::filesystem::path workDirectory;
    /** Whether the files named on the command line, which the sandbox does
     *  not show, were put into the work directory. */
    bool hasCopies;
};

// Names of those copies.
std::string keyringCopy(std::size_t index);
constexpr auto rootCaCopy = "root-ca";
constexpr auto signerKeyCopy = "signer-key";

/** Runs the services on the system bus that is there until a signal ends
 *  them. */
void serveSystemBus(const Options& options);

/** Puts keys and CA in place, starts bus and services, and runs COMMAND.
 *  Gives the exit status. */
int runSession(const Options& options, const Site& site);

} // namespace bmc_sim
