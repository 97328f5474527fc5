#include "common/purposes.hpp"
#include "services.hpp"

namespace bmc_services
{
namespace
{

constexpr auto MANAGER_PATH = "/xyz/openbmc_project/software";
// What is below it is asked of findModel(). The manager's own path cannot be
// given for that as well.
constexpr auto TREE = "/xyz/openbmc_project";
constexpr std::string_view SOFTWARE_PREFIX = "/xyz/openbmc_project/software/";

int getModel(sd_bus*, const char*, const char*, const char*,
             sd_bus_message* reply, void* model, sd_bus_error*) noexcept
{
    return sd_bus_message_append(
        reply, "s", static_cast<const std::string*>(model)->c_str());
}

} // namespace

void InventoryService::publish(sd_bus* bus)
{
    static const sd_bus_vtable MODEL_VTABLE[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_PROPERTY("Model", "s", getModel, 0, 0),
        SD_BUS_VTABLE_END,
    };
    static const sd_bus_vtable VTABLE[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("addSWInventory", "sssss", "", add,
                      SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("getVersionPurpose", "s", "s", getPurpose,
                      SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("removeSWInventory", "s", "", remove,
                      SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
    check(sd_bus_add_object_vtable(bus, nullptr, MANAGER_PATH, BUS_NAME, VTABLE,
                                   this),
          BUS_NAME);
    check(sd_bus_add_fallback_vtable(bus, nullptr, TREE,
                                     "xyz.openbmc_project.Software.Model",
                                     MODEL_VTABLE, findModel, this),
          BUS_NAME);
}

int InventoryService::findModel(sd_bus*, const char* path, const char*,
                                void* data, void** found,
                                sd_bus_error*) noexcept
{
    auto& models = static_cast<InventoryService*>(data)->models_;
    const auto model = models.find(path);
    *found = model == models.end() ? nullptr : &model->second;
    return *found != nullptr ? 1 : 0;
}

int InventoryService::add(sd_bus_message* call, void* data,
                          sd_bus_error* error) noexcept
{
    auto& models = static_cast<InventoryService*>(data)->models_;
    const char* path = nullptr;
    const char* model = nullptr;
    const char* version = nullptr;
    const char* purpose = nullptr;
    const char* releaseType = nullptr;
    const int result = sd_bus_message_read(call, "sssss", &path, &model,
                                           &version, &purpose, &releaseType);
    if (result < 0)
    {
        return result;
    }
    if (!std::string_view(path).starts_with(SOFTWARE_PREFIX) ||
        sd_bus_object_path_is_valid(path) == 0 ||
        !tools::VERSION_PURPOSES.holds(purpose) ||
        !tools::RELEASE_TYPES.holds(releaseType))
    {
        return sd_bus_error_setf(
            error, INVALID_ARGUMENT,
            "No software object, version purpose or release type: %s, %s, %s",
            path, purpose, releaseType);
    }
    if (!models.emplace(path, model).second)
    {
        return sd_bus_error_setf(error, NOT_ALLOWED,
                                 "Software object exists already: %s", path);
    }
    return sd_bus_reply_method_return(call, nullptr);
}

int InventoryService::remove(sd_bus_message* call, void* data,
                             sd_bus_error* error) noexcept
{
    auto& models = static_cast<InventoryService*>(data)->models_;
    const char* path = nullptr;
    const int result = sd_bus_message_read(call, "s", &path);
    if (result < 0)
    {
        return result;
    }
    return models.erase(path) == 0
               ? sd_bus_error_setf(error, RESOURCE_NOT_FOUND,
                                   "No such software object: %s", path)
               : sd_bus_reply_method_return(call, nullptr);
}

int InventoryService::getPurpose(sd_bus_message* call, void* data,
                                 sd_bus_error* error) noexcept
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

} // namespace bmc_services
