#pragma once

#include "inventory_service.hpp"
#include "options.hpp"
#include "security_service.hpp"

namespace bmc_sim
{

/** Tells the system identifier. */
class PlatformService
{
  public:
    static constexpr auto BUS_NAME = "com.vorn.bmc.smad";

    explicit PlatformService(const std::array<std::uint8_t, 2>& systemId) :
        systemId_(systemId)
    {
    }

    void publish(sd_bus* bus);

  private:
    static int getSystemId(sd_bus*, const char*, const char*, const char*,
                           sd_bus_message* reply, void* data, sd_bus_error*);

    std::array<std::uint8_t, 2> systemId_;
};

/** The services that are asked for, on the system bus of the environment. They
 *  own their names, and answer while the loop runs. */
class Services
{
  public:
    Services(const Options& options, sd_event* loop);
    Services(const Services&) = delete;
    Services& operator=(const Services&) = delete;

  private:
    PlatformService platform_;
    SecurityService security_;
    InventoryService inventory_;
    /** Each service has its own connection, as on a BMC, so no name shows
     *  another's objects. */
    std::array<Bus, 3> buses_;
};

} // namespace bmc_sim
