#include "failure.hpp"
#include "in_place.hpp"
#include "options.hpp"
#include "process.hpp"
#include "sandbox.hpp"
#include "session.hpp"

#include <csignal>
#include <cstdlib>
#include <iostream>

namespace bmc_sim
{
namespace
{

int runInPlace(const Options& options, const std::string& reason)
{
    if (geteuid() != 0)
    {
        throw Failure(reason + "; only root can work in place");
    }
    const InPlaceSite site;
    std::cerr << "bmc-sim: " + reason + "; working in place\n";
    return runSession(options, site.site());
}

int run(const Arguments& arguments)
{
    // A caller that ignores SIGCHLD would keep exit statuses from us.
    std::signal(SIGCHLD, SIG_DFL);
    const Options options = parseOptions(arguments);
    if (!options.insideDescriptors.empty())
    {
        holdSignals();
        enterSandbox(options.insideDescriptors);
        return runSession(options, sandboxSite());
    }
    if (options.serves)
    {
        serveSystemBus(options);
        return EXIT_SUCCESS;
    }
    if (options.inPlace)
    {
        return runInPlace(options, "no sandbox asked for");
    }
    const SandboxSupport support = probeSandbox();
    if (!support.available)
    {
        return runInPlace(options, support.complaint);
    }
    return runInSandbox(options, arguments, support.arguments);
}

} // namespace
} // namespace bmc_sim

int main(int argc, char* argv[])
{
    try
    {
        return bmc_sim::run({argv + 1, argv + argc});
    }
    catch (const bmc_sim::Failure& failure)
    {
        std::cerr << std::string("bmc-sim: ") + failure.what() + "\n";
        return failure.status();
    }
    catch (const std::exception& error)
    {
        std::cerr << std::string("bmc-sim: ") + error.what() + "\n";
        return bmc_sim::exitFailure;
    }
}
