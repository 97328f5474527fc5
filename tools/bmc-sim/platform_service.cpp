#include "common/error.hpp"
#include "services.hpp"

#include <cstring>

namespace bmc_services
{

int check(int result, const char* step)
{
    if (result < 0)
    {
        throw tools::Error(step, std::strerror(-result));
    }
    return result;
}

void PlatformService::publish(sd_bus* bus)
{
    static const sd_bus_vtable VTABLE[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_PROPERTY("BaseSystemId", "ay", getSystemId, 0,
                        SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_VTABLE_END,
    };
    check(sd_bus_add_object_vtable(
              bus, nullptr, "/xyz/openbmc_project/smad/oem",
              "xyz.openbmc_project.Inventory.Item.Oem", VTABLE, this),
          BUS_NAME);
}

int PlatformService::getSystemId(sd_bus*, const char*, const char*, const char*,
                                 sd_bus_message* reply, void* data,
                                 sd_bus_error*) noexcept
{
    const auto& id = static_cast<const PlatformService*>(data)->systemId_;
    return sd_bus_message_append_array(reply, SD_BUS_TYPE_BYTE, &id,
                                       sizeof(id));
}

} // namespace bmc_services
