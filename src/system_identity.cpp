#include "bus_client.hpp"
#include "handles.hpp"
#include "log.hpp"
#include "package_files.hpp"
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

/** Reads this machine's identifier from the platform service.
 *
 *  @return nothing when the property does not hold exactly two bytes; that
 *          has been logged
 *  @throws std::exception for a failure of the bus */
std::optional<std::uint16_t> readSystemId()
{
    auto bus = openSystemBus();
    auto call = bus.new_method_call("com.vorn.bmc.smad",
                                    "/xyz/openbmc_project/smad/oem",
                                    "org.freedesktop.DBus.Properties", "Get");
    call.append("xyz.openbmc_project.Inventory.Item.Oem", "BaseSystemId");
    auto reply = bus.call(call);
    std::variant<std::vector<std::uint8_t>> property;
    reply.read(property);
    const auto& bytes = std::get<std::vector<std::uint8_t>>(property);
    if (bytes.size() != 2)
    {
        cerrFailure();
        return std::nullopt;
    }
    const auto value = static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
    std::array<char, 8> hexSystemIDStr{};
    std::snprintf(hexSystemIDStr.data(), hexSystemIDStr.size(), "%04X",
                  static_cast<unsigned>(value));
    cerrInfo("hexSystemIDStr: ", hexSystemIDStr.data());
    return value;
}

/** First `systemID` of the nodes that equals the identifier, as written.
 *
 *  @throws std::invalid_argument, std::out_of_range from the conversion */
std::optional<std::string> findSystemId(const xmlNodeSet& nodes,
                                        std::uint16_t systemId)
{
    for (int i = 0; i < nodes.nodeNr; ++i)
    {
        if (nodes.nodeTab[i] == nullptr)
        {
            continue;
        }
        const auto text = attributeText(nodes.nodeTab[i], "systemID");
        if (text && std::stoi(toString(*text), nullptr, 16) == systemId)
        {
            return toString(*text);
        }
    }
    return std::nullopt;
}

} // namespace

bool ValidateQOR::validateSytemIdFromPkgXML(const std::string& descriptorPath)
{
    std::optional<std::uint16_t> systemId;
    try
    {
        systemId = readSystemId();
    }
    catch (const std::exception& e)
    {
        reportBusError(e);
        return false;
    }
    if (!systemId)
    {
        return false;
    }

    if (!isRegularFile(descriptorPath))
    {
        cerrFailure();
        return false;
    }
    XmlDocument document = parseDescriptor(descriptorPath);
    if (document == nullptr)
    {
        cerrFailure();
        return false;
    }
    XPathContext context(xmlXPathNewContext(document.get()));
    if (context == nullptr)
    {
        cerrFailure();
        return false;
    }
    XPathResult result(xmlXPathEvalExpression(
        reinterpret_cast<const xmlChar*>("//Model"), context.get()));
    context.reset();
    if (result == nullptr || result->nodesetval == nullptr)
    {
        cerrFailure();
        // Without nodes the result does not need the document, which goes
        // first here and below.
        document.reset();
        return false;
    }
    const xmlNodeSet& nodes = *result->nodesetval;
    if (nodes.nodeNr <= 0)
    {
        cerrInfo("xmlXPathNodeNr: ", nodes.nodeNr);
        stderrInfo()("No system IDs listed in the package XML, hence system ID "
                     "validation bypassed");
        document.reset();
        return true;
    }
    stderrInfo()("System IDs listed in the package XML, hence system ID "
                 "validation will continue.");
    cerrInfo("xmlXPathNodeNr: ", nodes.nodeNr);
    if (nodes.nodeTab == nullptr)
    {
        cerrFailure();
        document.reset();
        return false;
    }

    const auto searchFound = findSystemId(nodes, *systemId);
    if (!searchFound)
    {
        cerrFailure();
    }
    result.reset();
    document.reset();
    if (!searchFound)
    {
        cerrFailure();
        return false;
    }
    cerrInfo("searchFound: ", *searchFound);
    cerrSuccess();
    return true;
}
