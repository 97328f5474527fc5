#include "session.hpp"

#include "bus_daemon.hpp"
#include "failure.hpp"
#include "keyring.hpp"
#include "places.hpp"
#include "process.hpp"
#include "services.hpp"
#include "signer_key.hpp"

#include <cstdlib>
#include <fstream>

namespace bmc_sim
{
namespace
{

namespace fs = std::filesystem;

fs::path inputFile(const Site& site, const std::string& copy,
                   const fs::path& original)
{
    return site.hasCopies ? site.workDirectory / copy : original;
}

void placeKeyrings(const Options& options, const Site& site)
{
    std::vector<KeyFile> files;
    for (const fs::path& name : options.keyrings)
    {
        const auto copy = keyringCopy(files.size());
        files.push_back({name, inputFile(site, copy, name)});
    }
    importKeys(files);
}

void placeRootCa(const fs::path& name, const fs::path& file)
{
    std::ifstream source(file, std::ios::binary);
    std::ofstream target(places::rootCa, std::ios::binary);
    if (!source || !target)
    {
        throw systemFailure(source ? places::rootCa : name.string());
    }
    // Inserting an empty buffer would set the stream's error state.
    if (source.peek() != std::ifstream::traits_type::eof())
    {
        target << source.rdbuf();
    }
    if (source.bad() || !target.flush())
    {
        throw Failure(name.string() + ": cannot be copied");
    }
}

ServiceSettings serviceSettings(const Options& options, const Site& site)
{
    ServiceSettings settings{.systemId = options.systemId,
                             .signerKey = {},
                             .purposes = options.purposes,
                             .absent = options.absentServices,
                             .verbose = options.verbose};
    if (options.signerKey)
    {
        settings.signerKey =
            readSignerKey(*options.signerKey,
                          inputFile(site, signerKeyCopy, *options.signerKey));
    }
    return settings;
}

} // namespace

std::string keyringCopy(std::size_t index)
{
    return "keyring-" + std::to_string(index);
}

void serveSystemBus(const Options& options)
{
    runServices(
        serviceSettings(options, {.workDirectory = {}, .hasCopies = false}));
}

int runSession(const Options& options, const Site& site)
{
    const ServiceSettings settings = serviceSettings(options, site);
    placeKeyrings(options, site);
    if (options.rootCa)
    {
        placeRootCa(*options.rootCa,
                    inputFile(site, rootCaCopy, *options.rootCa));
    }
    const std::string address = startBusDaemon(site.workDirectory);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    startServices(settings);
    if (const auto signal = takeEndSignal())
    {
        return exitSignalBase + *signal;
    }
    const pid_t command = spawn(
        {.arguments = options.command, .isCommand = true, .isBound = true});
    return supervise(command,
                     [command](int signal) { signalTree(command, signal); });
}

} // namespace bmc_sim
