#define LOG_BLOCK 11000

#include "bus_client.hpp"
#include "files.hpp"
#include "log.hpp"
#include "velmora.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace
{

using namespace velmora;
using VersionPurpose = ValidateQOR::VersionPurpose;
using ReleaseType = ValidateQOR::ReleaseType;

#define PURPOSE(name)                                                          \
    {VersionPurpose::name,                                                     \
     "xyz.openbmc_project.Software.Version.VersionPurpose." #name}
/** Not the exported table: a daemon that converts purposes itself has another
 *  one of that name, which takes its place for the whole process. */
constexpr std::array<std::pair<VersionPurpose, std::string_view>, 15> PURPOSES{{
    PURPOSE(Unknown),
    PURPOSE(Other),
    PURPOSE(System),
    PURPOSE(BMC),
    PURPOSE(Host),
    PURPOSE(PSU),
    PURPOSE(SEPBP),
    PURPOSE(BIOS),
    PURPOSE(CPLD),
    PURPOSE(TORLU),
    PURPOSE(FLOPCPLD),
    PURPOSE(TPM),
    PURPOSE(RFCMCU),
    PURPOSE(VALVEMCU),
    PURPOSE(LEAKMCU),
}};
#undef PURPOSE

constexpr std::array<std::pair<ReleaseType, std::string_view>, 3> RELEASE_TYPES{
    {
        {ReleaseType::Other,
         "xyz.openbmc_project.Software.Version.ReleaseType.Other"},
        {ReleaseType::Production,
         "xyz.openbmc_project.Software.Version.ReleaseType.Production"},
        {ReleaseType::Prototype,
         "xyz.openbmc_project.Software.Version.ReleaseType.Prototype"},
    }};

constexpr std::string_view BMC_COMPONENT = "113440";
constexpr std::string_view TORLU_COMPONENT = "113033";

/** Service and interface of the inventory manager have one name. */
constexpr const char* INVENTORY_MANAGER =
    "xyz.openbmc_project.Software.Installed.Inventory";
constexpr const char* INVENTORY_OBJECT = "/xyz/openbmc_project/software";

constexpr std::size_t INVENTORY_PREFIX_SIZE =
    std::string_view("/xyz/openbmc_project/inventory/system/").size();
constexpr const char* SOFTWARE_PREFIX = "/xyz/openbmc_project/software/";

/** @throws std::out_of_range when there is no whole prefix to cut off */
std::string softwarePath(const std::string& inventoryPath)
{
    return SOFTWARE_PREFIX + inventoryPath.substr(INVENTORY_PREFIX_SIZE);
}

/** @throws std::invalid_argument (the value in decimal) when it has none */
template <typename Table, typename Value>
std::string valueToString(const Table& table, Value value)
{
    const auto found =
        std::find_if(table.begin(), table.end(), [value](const auto& entry)
                     { return entry.first == value; });
    if (found == table.end())
    {
        throw std::invalid_argument(std::to_string(static_cast<int>(value)));
    }
    return std::string(found->second);
}

/** @param text whole D-Bus string
 *  @throws sdbusplus::exception::InvalidEnumString when no value has it */
VersionPurpose stringToPurpose(const std::string& text)
{
    for (const auto& [purpose, string] : PURPOSES)
    {
        if (string == text)
        {
            return purpose;
        }
    }
    throw sdbusplus::exception::InvalidEnumString();
}

/** Calls a method of the inventory manager whose reply is not read.
 *
 *  @return 1 done, 0 failed
 *  @throws sdbusplus::exception::SdBusError when the call cannot be created */
int callInventoryManager(const char* method,
                         std::initializer_list<std::string> arguments)
{
    auto bus = openSystemBus();
    auto call = bus.new_method_call(INVENTORY_MANAGER, INVENTORY_OBJECT,
                                    INVENTORY_MANAGER, method);
    for (const std::string& argument : arguments)
    {
        call.append(argument);
    }
    try
    {
        bus.call(call);
    }
    catch (const sdbusplus::exception::SdBusError& e)
    {
        LOG_INFO("e.what(): ", e.what());
        LOG_FAILURE("the inventory manager did not do what it was asked");
        return 0;
    }
    return 1;
}

} // namespace

constinit const decltype(PURPOSES) sdbusplus::common::xyz::openbmc_project::
    software::details::mappingVersionVersionPurpose = PURPOSES;

VersionPurpose ValidateQOR::getImagePurpose(const std::string& packageDir)
{
    const std::string compID = getStrFromPkgXML(
        joined(packageDir, DESCRIPTOR_FILE_NAME), "//Device", "componentID");
    if (compID == BMC_COMPONENT)
    {
        LOG_INFO("compID: ", compID);
        return VersionPurpose::BMC;
    }
    if (compID == TORLU_COMPONENT)
    {
        LOG_INFO("compID: ", compID);
        return VersionPurpose::TORLU;
    }
    auto bus = openSystemBus();
    auto call = bus.new_method_call(INVENTORY_MANAGER, INVENTORY_OBJECT,
                                    INVENTORY_MANAGER, "getVersionPurpose");
    call.append(compID);
    try
    {
        auto reply = bus.call(call);
        std::string purpose;
        reply.read(purpose);
        return stringToPurpose(purpose);
    }
    catch (const sdbusplus::exception::SdBusError& e)
    {
        LOG_INFO("e.what(): ", e.what());
        LOG_FAILURE("the inventory manager could not tell the purpose");
        return VersionPurpose::Unknown;
    }
}

int ValidateQOR::registerSWInv(const std::string& inventoryPath,
                               const std::string& swDetail1,
                               const std::string& swDetail2,
                               const VersionPurpose& purpose,
                               const ReleaseType& releaseType)
{
    const std::string purposeText = valueToString(PURPOSES, purpose);
    const std::string releaseTypeText =
        valueToString(RELEASE_TYPES, releaseType);
    return callInventoryManager("addSWInventory",
                                {softwarePath(inventoryPath), swDetail1,
                                 swDetail2, purposeText, releaseTypeText});
}

int ValidateQOR::registerInventory(const std::string& swDetail1,
                                   const VersionPurpose& purpose,
                                   const ReleaseType& releaseType,
                                   const std::string& /*ignoredText*/,
                                   const std::string& inventoryPath,
                                   const std::string& swDetail2)
{
    return registerSWInv(inventoryPath, swDetail1, swDetail2, purpose,
                         releaseType);
}

int ValidateQOR::deRegisterSWInv(const std::string& inventoryPath)
{
    return callInventoryManager("removeSWInventory",
                                {softwarePath(inventoryPath)});
}

int ValidateQOR::deregisterInventory(const std::string& /*swDetail1*/,
                                     const VersionPurpose& /*purpose*/,
                                     const ReleaseType& /*releaseType*/,
                                     const std::string& /*ignoredText*/,
                                     const std::string& inventoryPath)
{
    return deRegisterSWInv(inventoryPath);
}

std::string ValidateQOR::getInventoryModel(const std::string& inventoryPath)
{
    const std::string path = softwarePath(inventoryPath);
    auto bus = openSystemBus();
    auto call = bus.new_method_call(INVENTORY_MANAGER, path.c_str(),
                                    "org.freedesktop.DBus.Properties", "Get");
    call.append("xyz.openbmc_project.Software.Model", "Model");
    try
    {
        auto reply = bus.call(call);
        std::variant<std::string> model;
        reply.read(model);
        return std::get<std::string>(model);
    }
    catch (const sdbusplus::exception::SdBusError& e)
    {
        LOG_INFO("e.what(): ", e.what());
        LOG_FAILURE("the inventory manager could not tell the model");
        return {};
    }
}
