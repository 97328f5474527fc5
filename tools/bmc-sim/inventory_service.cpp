#include "inventory_service.hpp"

#include "purposes.hpp"

namespace bmc_sim
{
namespace
{

constexpr auto MANAGER_PATH = "/xyz/openbmc_project/software";
constexpr std::string_view SOFTWARE_PREFIX = "/xyz/openbmc_project/software/";

template <std::string SoftwareObject::* Text>
int getText(sd_bus*, const char*, const char*, const char*,
            sd_bus_message* reply, void* object, sd_bus_error*)
{
    const auto& text = static_cast<const SoftwareObject*>(object)->*Text;
    return sd_bus_message_append(reply, "s", text.c_str());
}

const sd_bus_vtable MODEL_VTABLE[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("Model", "s", getText<&SoftwareObject::model>, 0,
                    SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_VTABLE_END,
};

const sd_bus_vtable VERSION_VTABLE[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("Purpose", "s", getText<&SoftwareObject::purpose>, 0,
                    SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("ReleaseType", "s", getText<&SoftwareObject::releaseType>,
                    0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("Version", "s", getText<&SoftwareObject::version>, 0,
                    SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_VTABLE_END,
};

int addOwnedInterface(sd_bus* bus, BusSlot& owner, const char* path,
                      const char* interface, const sd_bus_vtable* vtable,
                      SoftwareObject& object)
{
    sd_bus_slot* slot = nullptr;
    const int result =
        sd_bus_add_object_vtable(bus, &slot, path, interface, vtable, &object);
    owner.reset(slot);
    return result;
}

/** @return negative when a step fails, as with all of sd-bus */
int publishObject(sd_bus* bus, const char* path, SoftwareObject& object)
{
    int result = addOwnedInterface(bus, object.modelInterface, path,
                                   "xyz.openbmc_project.Software.Model",
                                   MODEL_VTABLE, object);
    if (result >= 0)
    {
        result = addOwnedInterface(bus, object.versionInterface, path,
                                   "xyz.openbmc_project.Software.Version",
                                   VERSION_VTABLE, object);
    }
    return result < 0 ? result : sd_bus_emit_object_added(bus, path);
}

} // namespace

void InventoryService::publish(sd_bus* bus)
{
    static const sd_bus_vtable VTABLE[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD_WITH_NAMES(
            "addSWInventory", "sssss",
            SD_BUS_PARAM(path) SD_BUS_PARAM(swDetail1) SD_BUS_PARAM(swDetail2)
                SD_BUS_PARAM(purpose) SD_BUS_PARAM(releaseType),
            "", "", add, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES(
            "getVersionPurpose", "s", SD_BUS_PARAM(componentID), "s",
            SD_BUS_PARAM(purpose), getPurpose, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("removeSWInventory", "s", SD_BUS_PARAM(path),
                                 "", "", remove, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
    addInterface(bus, MANAGER_PATH, BUS_NAME, VTABLE, this);
    check(sd_bus_add_object_manager(bus, nullptr, MANAGER_PATH),
          "object manager");
}

int InventoryService::add(sd_bus_message* call, void* data, sd_bus_error* error)
{
    auto& objects = static_cast<InventoryService*>(data)->objects_;
    const char* path = nullptr;
    const char* model = nullptr;
    const char* version = nullptr;
    const char* purpose = nullptr;
    const char* releaseType = nullptr;
    int result = sd_bus_message_read(call, "sssss", &path, &model, &version,
                                     &purpose, &releaseType);
    if (result < 0)
    {
        return result;
    }
    if (!std::string_view(path).starts_with(SOFTWARE_PREFIX) ||
        sd_bus_object_path_is_valid(path) == 0)
    {
        return sd_bus_error_setf(error, INVALID_ARGUMENT,
                                 "Not the path of a software object: %s", path);
    }
    if (!VERSION_PURPOSES.holds(purpose) || !RELEASE_TYPES.holds(releaseType))
    {
        return sd_bus_error_setf(
            error, INVALID_ARGUMENT,
            "Not a version purpose and a release type: %s, %s", purpose,
            releaseType);
    }
    if (objects.contains(path))
    {
        return sd_bus_error_setf(error, NOT_ALLOWED,
                                 "Software object exists already: %s", path);
    }
    SoftwareObject& object = objects[path];
    object.model = model;
    object.version = version;
    object.purpose = purpose;
    object.releaseType = releaseType;
    result = publishObject(sd_bus_message_get_bus(call), path, object);
    if (result < 0)
    {
        objects.erase(path);
        return result;
    }
    return sd_bus_reply_method_return(call, nullptr);
}

int InventoryService::remove(sd_bus_message* call, void* data,
                             sd_bus_error* error)
{
    auto& objects = static_cast<InventoryService*>(data)->objects_;
    const char* path = nullptr;
    int result = sd_bus_message_read(call, "s", &path);
    if (result >= 0 && !objects.contains(path))
    {
        return sd_bus_error_setf(error, RESOURCE_NOT_FOUND,
                                 "No such software object: %s", path);
    }
    if (result >= 0)
    {
        // The signal lists the interfaces, so it goes first.
        result = sd_bus_emit_object_removed(sd_bus_message_get_bus(call), path);
    }
    if (result < 0)
    {
        return result;
    }
    objects.erase(path);
    return sd_bus_reply_method_return(call, nullptr);
}

int InventoryService::getPurpose(sd_bus_message* call, void* data,
                                 sd_bus_error* error)
{
    const auto& purposes = static_cast<InventoryService*>(data)->purposes_;
    const char* component = nullptr;
    const int result = sd_bus_message_read(call, "s", &component);
    if (result < 0)
    {
        return result;
    }
    const auto purpose = purposes.find(component);
    return purpose == purposes.end()
               ? sd_bus_error_setf(error, RESOURCE_NOT_FOUND,
                                   "No purpose is known of component: %s",
                                   component)
               : sd_bus_reply_method_return(call, "s", purpose->second.c_str());
}

} // namespace bmc_sim
