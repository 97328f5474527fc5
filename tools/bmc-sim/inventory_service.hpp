#pragma once

#include "service.hpp"

#include <map>

namespace bmc_sim
{

/** One published software object. */
class SoftwareObject
{
  public:
    SoftwareObject(const char* softwareModel, const char* softwareVersion,
                   const char* versionPurpose, const char* type) :
        model(softwareModel), version(softwareVersion), purpose(versionPurpose),
        releaseType(type)
    {
    }

    /** The object has to stay where it is as long as it is published. */
    void publish(sd_bus* bus, const char* path);

    const std::string model;
    const std::string version;
    const std::string purpose;
    const std::string releaseType;

  private:
    BusSlot modelInterface;
    BusSlot versionInterface;
};

/** Keeps the software objects, and knows the purposes of components. */
class InventoryService
{
  public:
    static constexpr auto busName =
        "xyz.openbmc_project.Software.Installed.Inventory";

    /** `versionPurposes` has D-Bus strings by component identifier. */
    explicit InventoryService(
        std::map<std::string, std::string> versionPurposes) :
        purposes(std::move(versionPurposes))
    {
    }

    void publish(sd_bus* bus);

    // The methods addSWInventory, removeSWInventory and getVersionPurpose.
    void add(sd_bus_message* call);
    void remove(sd_bus_message* call);
    void getPurpose(sd_bus_message* call);

  private:
    std::map<std::string, std::string> purposes;
    std::map<std::string, SoftwareObject> objects;
};

} // namespace bmc_sim
