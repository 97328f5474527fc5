#include "services.hpp"

#include "failure.hpp"
#include "inventory_service.hpp"
#include "options.hpp"
#include "process.hpp"
#include "security_service.hpp"
#include "service.hpp"

#include <systemd/sd-daemon.h>

namespace bmc_sim
{
namespace
{

constexpr std::string_view readyReport = "ready";

/** Tells the system identifier. */
class PlatformService
{
  public:
    static constexpr auto busName = "com.vorn.bmc.smad";

    explicit PlatformService(const std::array<std::uint8_t, 2>& systemId) :
        baseSystemId(systemId)
    {
    }

    void publish(sd_bus* bus);

  private:
    static int getBaseSystemId(sd_bus*, const char*, const char*, const char*,
                               sd_bus_message* reply, void* service,
                               sd_bus_error*) noexcept
    {
        const auto& id = static_cast<PlatformService*>(service)->baseSystemId;
        return sd_bus_message_append_array(reply, SD_BUS_TYPE_BYTE, id.data(),
                                           id.size());
    }

    std::array<std::uint8_t, 2> baseSystemId;
};

void PlatformService::publish(sd_bus* bus)
{
    static const sd_bus_vtable vtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_PROPERTY("BaseSystemId", "ay", getBaseSystemId, 0,
                        SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_VTABLE_END,
    };
    addInterface(bus, "/xyz/openbmc_project/smad/oem",
                 "xyz.openbmc_project.Inventory.Item.Oem", vtable, this);
}

/** Each service has a connection of its own, as it has on a BMC: a name
 *  shows none of another's objects. */
template <typename Service>
Bus start(Service& service, sd_event* loop, const char* label,
          const ServiceSettings& settings)
{
    if (settings.absent.contains(label))
    {
        return nullptr;
    }
    Bus bus = openBus(loop, label, settings.verbose);
    service.publish(bus.get());
    check(sd_bus_request_name(bus.get(), Service::busName, 0),
          Service::busName);
    return bus;
}

template <typename Report>
void serve(const ServiceSettings& settings, const Report& reportReady)
{
    sd_event* created = nullptr;
    check(sd_event_new(&created), "event loop");
    const EventLoop loop(created);

    PlatformService platform(settings.systemId);
    SecurityService security(settings.signerKey);
    InventoryService inventory(settings.purposes);
    const Bus platformBus =
        start(platform, loop.get(), platformService, settings);
    const Bus securityBus =
        start(security, loop.get(), securityService, settings);
    const Bus inventoryBus =
        start(inventory, loop.get(), inventoryService, settings);

    reportReady();
    check(sd_event_loop(loop.get()), "event loop");
}

[[noreturn]] void becomeServices(const ServiceSettings& settings,
                                 FileDescriptor& report)
{
    try
    {
        serve(settings,
              [&report]
              {
                  check(static_cast<int>(write(report.get(), readyReport.data(),
                                               readyReport.size())),
                        "report");
                  report.reset();
              });
    }
    catch (const std::exception& error)
    {
        const std::string text = std::string("services: ") + error.what();
        [[maybe_unused]] const auto written =
            write(report.get(), text.data(), text.size());
    }
    // The site's clean-up, further up the stack, is the parent's to do.
    _exit(exitFailure);
}

} // namespace

void runServices(const ServiceSettings& settings)
{
    serve(settings, [] { sd_notify(0, "READY=1"); });
}

void startServices(const ServiceSettings& settings)
{
    Pipe report = makePipe();
    if (forkProcess(true) == 0)
    {
        becomeServices(settings, report.writer);
    }
    report.writer.reset();
    const std::string answer = readAll(report.reader);
    if (answer != readyReport)
    {
        throw Failure(answer.empty() ? "services: ended at once" : answer);
    }
}

} // namespace bmc_sim
