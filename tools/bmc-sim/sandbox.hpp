#pragma once

#include "options.hpp"
#include "process.hpp"
#include "session.hpp"

namespace bmc_sim
{

/** What a trial run of bubblewrap found out. */
struct SandboxSupport
{
    bool available;
    /** Options with which a sandbox can be made here. */
    Arguments arguments;
    /** What bubblewrap said when it cannot be made. */
    std::string complaint;
};

SandboxSupport probeSandbox();

/** Starts bmc-sim once more, with the same arguments, within the sandbox.
 *
 *  @return the exit status */
int runInSandbox(Options& options, const Arguments& arguments,
                 const Arguments& support);

/** First step within: takes up the caller's standard error stream. */
Site enterSandbox(const std::vector<int>& insideFiles);

} // namespace bmc_sim
