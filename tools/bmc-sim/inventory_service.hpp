#pragma once

#include "service.hpp"

#include <map>
#include <string>

namespace bmc_sim
{

/** One software object; it has to stay where it is while it is published. */
struct SoftwareObject
{
    std::string model;
    std::string version;
    std::string purpose;
    std::string releaseType;
    BusSlot modelInterface;
    BusSlot versionInterface;
};

/** Keeps the software objects, and knows the purposes of components. */
class InventoryService
{
  public:
    static constexpr auto BUS_NAME =
        "xyz.openbmc_project.Software.Installed.Inventory";

    /** @param purposes D-Bus strings by component identifier */
    explicit InventoryService(std::map<std::string, std::string> purposes) :
        purposes_(std::move(purposes))
    {
    }

    void publish(sd_bus* bus);

  private:
    // Handlers of the methods, for the service that is given as data.
    static int add(sd_bus_message* call, void* data, sd_bus_error* error);
    static int remove(sd_bus_message* call, void* data, sd_bus_error* error);
    static int getPurpose(sd_bus_message* call, void* data,
                          sd_bus_error* error);

    std::map<std::string, std::string> purposes_;
    std::map<std::string, SoftwareObject> objects_;
};

} // namespace bmc_sim
