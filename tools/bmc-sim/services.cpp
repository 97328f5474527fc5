#include "services.hpp"

namespace bmc_sim
{
namespace
{

template <typename Service>
Bus start(Service& service, sd_event* loop, const char* label,
          const Options& options)
{
    if (!options.services.contains(label))
    {
        return nullptr;
    }
    Bus bus = openBus(loop, label, options.verbose);
    service.publish(bus.get());
    check(sd_bus_request_name(bus.get(), Service::BUS_NAME, 0),
          Service::BUS_NAME);
    return bus;
}

} // namespace

void PlatformService::publish(sd_bus* bus)
{
    static const sd_bus_vtable VTABLE[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_PROPERTY("BaseSystemId", "ay", getSystemId, 0,
                        SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_VTABLE_END,
    };
    addInterface(bus, "/xyz/openbmc_project/smad/oem",
                 "xyz.openbmc_project.Inventory.Item.Oem", VTABLE, this);
}

int PlatformService::getSystemId(sd_bus*, const char*, const char*, const char*,
                                 sd_bus_message* reply, void* data,
                                 sd_bus_error*)
{
    const auto& id = static_cast<PlatformService*>(data)->systemId_;
    return sd_bus_message_append_array(reply, SD_BUS_TYPE_BYTE, id.data(),
                                       id.size());
}

Services::Services(const Options& options, sd_event* loop) :
    platform_(options.systemId),
    security_(options.signerKey ? readSignerKey(*options.signerKey)
                                : std::vector<std::uint8_t>()),
    inventory_(options.purposes),
    buses_{start(platform_, loop, PLATFORM, options),
           start(security_, loop, SECURITY, options),
           start(inventory_, loop, INVENTORY, options)}
{
}

} // namespace bmc_sim
