#include "common/command_line.hpp"
#include "common/error.hpp"
#include "common/files.hpp"
#include "common/purposes.hpp"
#include "library_version.hpp"
#include "services.hpp"
#include "terminal_filter.hpp"

#include <systemd/sd-daemon.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <array>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <string>

namespace bmc_services
{
namespace
{

using Bus = tools::Handle<sd_bus, sd_bus_flush_close_unref>;
using EventLoop = tools::Handle<sd_event, sd_event_unref>;

// bmc-sim hands it on as its own.
constexpr int FAILED = 125;
constexpr int HEXADECIMAL = 16;

constexpr auto PLATFORM = "platform";
constexpr auto SECURITY = "security";
constexpr auto INVENTORY = "inventory";

struct Options
{
    std::set<std::string> services;
    std::string systemId = "0A1B";
    std::string signerKey;
    /** D-Bus strings by component identifier. */
    std::map<std::string, std::string> purposes;
    bool writesFilter = false;
};

/** Takes up the text of one --purpose. */
void addPurpose(Options& options, const std::string& text)
{
    const auto equals = text.rfind('=');
    const auto purpose =
        equals == std::string::npos
            ? std::nullopt
            : tools::VERSION_PURPOSES.complete(text.substr(equals + 1));
    if (!purpose)
    {
        throw CLI::ValidationError(
            "--purpose", "not ID=NAME, or no such version purpose: " + text);
    }
    options.purposes.insert_or_assign(text.substr(0, equals), *purpose);
}

/** Publishes a service, if it is among those that are asked for. It has a
 *  connection of its own, as on a BMC, so no name shows another's objects. */
template <typename Service>
Bus start(Service& service, const char* name, const Options& options,
          sd_event* loop)
{
    if (!options.services.contains(name))
    {
        return nullptr;
    }
    sd_bus* opened = nullptr;
    check(sd_bus_open_system(&opened), "system bus");
    Bus bus(opened);
    check(sd_bus_attach_event(opened, loop, SD_EVENT_PRIORITY_NORMAL),
          "event loop");
    service.publish(opened);
    check(sd_bus_request_name(opened, Service::BUS_NAME, 0), Service::BUS_NAME);
    return bus;
}

void declareOptions(CLI::App& app, Options& options)
{
    app.add_option("SERVICE", options.services,
                   "What to run: platform, security, inventory")
        ->check(CLI::IsMember({PLATFORM, SECURITY, INVENTORY}));
    app.add_option("--system-id", options.systemId,
                   "System identifier, 16 bits in hexadecimal")
        ->capture_default_str()
        ->transform(CLI::Validator(tools::normaliseSystemId, ""));
    app.add_option("--signer-key", options.signerKey,
                   "Public key of the image signer, in DER");
    app.add_option_function<std::string>(
           "--purpose",
           [&options](const std::string& text) { addPurpose(options, text); },
           "Version purpose of a component ID, such as 7=BIOS (repeatable)")
        ->trigger_on_parse();
    app.add_flag("--terminal-filter", options.writesFilter,
                 "Check the other options, and write what keeps a program from "
                 "typing into its terminal, for bwrap --seccomp");
    app.set_version_flag("--version",
                         std::string("bmc-services " VELMORA_VERSION ", ") +
                             LIBRARY_VERSION);
}

int run(const Options& options)
{
    if (options.writesFilter)
    {
        writeTerminalFilter(STDOUT_FILENO);
        return EXIT_SUCCESS;
    }
    PlatformService platform(static_cast<std::uint16_t>(
        std::stoul(options.systemId, nullptr, HEXADECIMAL)));
    SecurityService security(
        options.signerKey.empty() ? "" : tools::readFile(options.signerKey));
    InventoryService inventory(options.purposes);
    sd_event* created = nullptr;
    check(sd_event_new(&created), "event loop");
    const EventLoop loop(created);
    const std::array buses{start(platform, PLATFORM, options, created),
                           start(security, SECURITY, options, created),
                           start(inventory, INVENTORY, options, created)};
    sd_notify(0, "READY=1");
    // For who is not systemd.
    std::cout << "ready\n" << std::flush;
    return check(sd_event_loop(created), "event loop");
}

} // namespace
} // namespace bmc_services

int main(int argc, char* argv[])
{
    using namespace bmc_services;
    Options options;
    CLI::App app(
        "Runs services of a BMC on the system bus that is there. When "
        "they own their names,\nsystemd is told and a line is printed.",
        "bmc-services");
    tools::setUpComplaints(app);
    declareOptions(app, options);
    try
    {
        app.parse(argc, argv);
        if (options.services.empty() && !options.writesFilter)
        {
            throw CLI::RequiredError("SERVICE");
        }
        return run(options);
    }
    catch (const CLI::ParseError& error)
    {
        return tools::endParse(app, error);
    }
    catch (const std::exception& error)
    {
        std::cerr << "bmc-services: " + tools::printable(error.what()) + "\n";
        return FAILED;
    }
}
