#include "session.hpp"

#include "bus_daemon.hpp"
#include "failure.hpp"
#include "process.hpp"
#include "services.hpp"

#include <cstdlib>

namespace bmc_sim
{

int runSession(const Options& options, const Site& site)
{
    importKeys(options.keyrings);
    if (options.rootCa)
    {
        placeRootCa(*options.rootCa);
    }
    const std::string address = startBusDaemon(site.workDirectory);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    const EventLoop loop = makeLoop();
    const Services services(options, loop.get());
    if (const auto signal = takeEndSignal(site.lifeline))
    {
        return KILLED_BY_SIGNAL + *signal;
    }
    const pid_t command =
        spawn({.arguments = options.command, .kept = {}, .isCommand = true});
    return supervise(loop.get(), command, site.lifeline,
                     [command](int signal) { signalTree(command, signal); });
}

} // namespace bmc_sim
