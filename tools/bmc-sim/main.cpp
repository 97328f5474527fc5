#include "failure.hpp"
#include "in_place.hpp"
#include "options.hpp"
#include "process.hpp"
#include "sandbox.hpp"
#include "services.hpp"
#include "session.hpp"

#include <systemd/sd-daemon.h>

#include <csignal>
#include <iostream>

namespace bmc_sim
{
namespace
{

int runInPlace(const Options& options, const std::string& reason)
{
    if (geteuid() != 0)
    {
        throw Error(reason, "only root can work in place");
    }
    const InPlaceSite site;
    std::cerr << "bmc-sim: " + tools::printable(reason) +
                     "; working in place\n";
    return runSession(options, site.site());
}

int run(const Arguments& arguments)
{
    // A caller that ignores SIGCHLD would keep exit statuses from us.
    std::signal(SIGCHLD, SIG_DFL);
    Options options = parseOptions(arguments);
    if (options.serves)
    {
        const EventLoop loop = makeLoop();
        const Services services(options, loop.get());
        sd_notify(0, "READY=1");
        return check(sd_event_loop(loop.get()), "event loop");
    }
    if (!options.insideFiles.empty())
    {
        return runSession(options, enterSandbox(options.insideFiles));
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
    catch (const std::exception& error)
    {
        std::cerr << "bmc-sim: " + tools::printable(error.what()) + "\n";
        const auto* const failure =
            dynamic_cast<const bmc_sim::Failure*>(&error);
        return failure != nullptr ? failure->status() : bmc_sim::FAILED;
    }
}
