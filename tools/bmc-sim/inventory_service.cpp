#include "inventory_service.hpp"

#include "purposes.hpp"

namespace bmc_sim
{
namespace
{

constexpr auto managerPath = "/xyz/openbmc_project/software";
constexpr std::string_view softwarePrefix = "/xyz/openbmc_project/software/";
constexpr auto modelInterfaceName = "xyz.openbmc_project.Software.Model";
constexpr auto versionInterfaceName = "xyz.openbmc_project.Software.Version";

template <const std::string SoftwareObject::* Text>
int getText(sd_bus*, const char*, const char*, const char*,
            sd_bus_message* reply, void* object, sd_bus_error*) noexcept
{
    const auto& text = static_cast<const SoftwareObject*>(object)->*Text;
    return sd_bus_message_append(reply, "s", text.c_str());
}

const sd_bus_vtable modelVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("Model", "s", getText<&SoftwareObject::model>, 0,
                    SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_VTABLE_END,
};

const sd_bus_vtable versionVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("Purpose", "s", getText<&SoftwareObject::purpose>, 0,
                    SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("ReleaseType", "s", getText<&SoftwareObject::releaseType>,
                    0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("Version", "s", getText<&SoftwareObject::version>, 0,
                    SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_VTABLE_END,
};

const sd_bus_vtable managerVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES(
        "addSWInventory", "sssss",
        SD_BUS_PARAM(path) SD_BUS_PARAM(swDetail1) SD_BUS_PARAM(swDetail2)
            SD_BUS_PARAM(purpose) SD_BUS_PARAM(releaseType),
        "", "", (handle<InventoryService, &InventoryService::add>),
        SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES(
        "getVersionPurpose", "s", SD_BUS_PARAM(componentID), "s",
        SD_BUS_PARAM(purpose),
        (handle<InventoryService, &InventoryService::getPurpose>),
        SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES(
        "removeSWInventory", "s", SD_BUS_PARAM(path), "", "",
        (handle<InventoryService, &InventoryService::remove>),
        SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

BusSlot addOwnedInterface(sd_bus* bus, const char* path, const char* interface,
                          const sd_bus_vtable* vtable, SoftwareObject* object)
{
    sd_bus_slot* slot = nullptr;
    check(sd_bus_add_object_vtable(bus, &slot, path, interface, vtable, object),
          interface);
    return BusSlot(slot);
}

void checkPath(const std::string& path)
{
    if (!path.starts_with(softwarePrefix) ||
        sd_bus_object_path_is_valid(path.c_str()) == 0)
    {
        throw Refusal(invalidArgument,
                      "Not the path of a software object: " + path);
    }
}

void checkKind(const char* purpose, const char* releaseType)
{
    if (!versionPurposes.holds(purpose))
    {
        throw Refusal(invalidArgument,
                      std::string("Not a version purpose: ") + purpose);
    }
    if (!releaseTypes.holds(releaseType))
    {
        throw Refusal(invalidArgument,
                      std::string("Not a release type: ") + releaseType);
    }
}

} // namespace

void SoftwareObject::publish(sd_bus* bus, const char* path)
{
    modelInterface =
        addOwnedInterface(bus, path, modelInterfaceName, modelVtable, this);
    versionInterface =
        addOwnedInterface(bus, path, versionInterfaceName, versionVtable, this);
    check(sd_bus_emit_object_added(bus, path), "InterfacesAdded");
}

void InventoryService::publish(sd_bus* bus)
{
    addInterface(bus, managerPath, busName, managerVtable, this);
    check(sd_bus_add_object_manager(bus, nullptr, managerPath),
          "object manager");
}

void InventoryService::add(sd_bus_message* call)
{
    const std::string path = readString(call);
    const char* const model = readString(call);
    const char* const version = readString(call);
    const char* const purpose = readString(call);
    const char* const releaseType = readString(call);
    checkPath(path);
    checkKind(purpose, releaseType);
    const auto [object, isNew] =
        objects.try_emplace(path, model, version, purpose, releaseType);
    if (!isNew)
    {
        throw Refusal(notAllowed, "Software object exists already: " + path);
    }
    try
    {
        object->second.publish(sd_bus_message_get_bus(call), path.c_str());
    }
    catch (...)
    {
        objects.erase(object);
        throw;
    }
    check(sd_bus_reply_method_return(call, nullptr), "reply");
}

void InventoryService::remove(sd_bus_message* call)
{
    const std::string path = readString(call);
    const auto object = objects.find(path);
    if (object == objects.end())
    {
        throw Refusal(resourceNotFound, "No such software object: " + path);
    }
    // The signal lists the interfaces, so it goes first.
    check(
        sd_bus_emit_object_removed(sd_bus_message_get_bus(call), path.c_str()),
        "InterfacesRemoved");
    objects.erase(object);
    check(sd_bus_reply_method_return(call, nullptr), "reply");
}

void InventoryService::getPurpose(sd_bus_message* call)
{
    const std::string component = readString(call);
    const auto purpose = purposes.find(component);
    if (purpose == purposes.end())
    {
        throw Refusal(resourceNotFound,
                      "No purpose is known of component: " + component);
    }
    check(sd_bus_reply_method_return(call, "s", purpose->second.c_str()),
          "reply");
}

} // namespace bmc_sim
