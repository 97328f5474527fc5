#define LOG_BLOCK 5000

#include "bus_client.hpp"
#include "files.hpp"
#include "handles.hpp"
#include "log.hpp"
#include "velmora.hpp"
#include "xml_parsing.hpp"

#include <array>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace
{

using namespace velmora;

/** Bytes of the `systemID` that is logged. */
constexpr std::size_t MAX_LOGGED_ID = 1024;

/** This machine's identifier as the platform service states it; nothing after
 *  a logged failure. */
std::optional<std::uint16_t> findOwnSystemId()
{
    try
    {
        auto bus = openSystemBus();
        auto call = bus.new_method_call(
            "com.vorn.bmc.smad", "/xyz/openbmc_project/smad/oem",
            "org.freedesktop.DBus.Properties", "Get");
        call.append("xyz.openbmc_project.Inventory.Item.Oem", "BaseSystemId");
        auto reply = bus.call(call);
        std::variant<std::vector<std::uint8_t>> property;
        reply.read(property);
        const auto& bytes = std::get<std::vector<std::uint8_t>>(property);
        if (bytes.size() != 2)
        {
            LOG_FAILURE(
                "the platform service's identifier is not two bytes long");
            return std::nullopt;
        }
        const auto value = static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
        std::array<char, 8> hexSystemIDStr{};
        std::snprintf(hexSystemIDStr.data(), hexSystemIDStr.size(), "%04X",
                      static_cast<unsigned>(value));
        LOG_INFO("hexSystemIDStr: ", hexSystemIDStr.data());
        return value;
    }
    catch (const std::exception& e)
    {
        LOG_INFO("e.what(): ", e.what());
        LOG_FAILURE("the platform service gave no identifier");
        return std::nullopt;
    }
}

/** First `systemID` of the nodes that equals the identifier, as written;
 *  nothing after a logged failure.
 *
 *  @throws std::invalid_argument, std::out_of_range from the conversion */
std::optional<std::string> findListed(const xmlNodeSet& models,
                                      std::uint16_t systemId,
                                      const XmlAllocations& allocations)
{
    for (int i = 0; i < models.nodeNr; ++i)
    {
        xmlNode* value = attributeValue(models.nodeTab[i], "systemID");
        if (value == nullptr)
        {
            continue;
        }
        const XmlText text(xmlNodeGetContent(value));
        // Looked at first: a text cut short is not to pass for a malformed one.
        if (text == nullptr || allocations.failed())
        {
            LOG_FAILURE("memory is out");
            return std::nullopt;
        }
        std::string listed = reinterpret_cast<const char*>(text.get());
        if (std::stoi(listed, nullptr, 16) != systemId)
        {
            continue;
        }
        if (listed.size() > MAX_LOGGED_ID)
        {
            LOG_FAILURE(
                "the systemID of this system is longer than 1024 bytes");
            return std::nullopt;
        }
        return listed;
    }
    LOG_FAILURE("no listed system is this one");
    return std::nullopt;
}

} // namespace

bool ValidateQOR::validateSytemIdFromPkgXML(const std::string& descriptorPath)
{
    const auto systemId = findOwnSystemId();
    if (!systemId)
    {
        return false;
    }
    if (!isRegularFile(descriptorPath))
    {
        LOG_FAILURE("the descriptor is missing or no regular file");
        return false;
    }
    // On an early return the document is freed before the result. After the
    // search the result is freed first.
    const XmlAllocations allocations;
    XmlDocument document = parseDescriptor(descriptorPath, allocations);
    if (document == nullptr)
    {
        LOG_FAILURE("the descriptor cannot be read, is not well-formed, or is "
                    "beyond a limit");
        return false;
    }
    XPathResult result = evaluate(document.get(), "//Model", allocations);
    if (result == nullptr || result->nodesetval == nullptr)
    {
        LOG_FAILURE("the descriptor could not be searched for models");
        document.reset();
        return false;
    }
    const xmlNodeSet& models = *result->nodesetval;
    if (models.nodeNr <= 0)
    {
        LOG_INFO("xmlXPathNodeNr: ", models.nodeNr);
        PRINT_INFO("No system IDs listed in the package XML, hence system ID "
                   "validation bypassed");
        document.reset();
        return true;
    }
    PRINT_INFO("System IDs listed in the package XML, hence system ID "
               "validation will continue.");
    LOG_INFO("xmlXPathNodeNr: ", models.nodeNr);
    if (models.nodeTab == nullptr)
    {
        LOG_FAILURE("the parser gave no list of the models");
        document.reset();
        return false;
    }

    const auto searchFound = findListed(models, *systemId, allocations);
    result.reset();
    document.reset();
    if (!searchFound)
    {
        LOG_ECHO("system_identity", "the package is not for this system");
        return false;
    }
    LOG_INFO("searchFound: ", *searchFound);
    LOG_SUCCESS("the system");
    return true;
}
