#define LOG_BLOCK 3000

#include "files.hpp"
#include "handles.hpp"
#include "log.hpp"
#include "velmora.hpp"
#include "xml_parsing.hpp"

#include <string>

namespace
{

using namespace velmora;

/** Text of the first of the nodes that have the attribute; null where none has
 *  it, or the parser cannot give it. */
XmlText firstText(const xmlNodeSet& nodes, const char* name)
{
    for (int i = 0; i < nodes.nodeNr; ++i)
    {
        xmlNode* value = attributeValue(nodes.nodeTab[i], name);
        if (value != nullptr)
        {
            return XmlText(xmlNodeGetContent(value));
        }
    }
    return nullptr;
}

} // namespace

std::string ValidateQOR::getStrFromPkgXML(const std::string& descriptorPath,
                                          const char* expression,
                                          const std::string& attribute)
{
    if (!isRegularFile(descriptorPath))
    {
        LOG_FAILURE("the descriptor is missing or no regular file");
        return {};
    }
    if (expression == nullptr)
    {
        LOG_FAILURE("no expression was given");
        return {};
    }
    const XmlAllocations allocations;
    XmlDocument document = parseDescriptor(descriptorPath, allocations);
    if (document == nullptr)
    {
        LOG_FAILURE("the descriptor cannot be read, is not well-formed, or is "
                    "beyond a limit");
        return {};
    }
    XPathResult result = evaluate(document.get(), expression, allocations);
    if (result == nullptr)
    {
        LOG_FAILURE("the XPath expression is invalid, or memory is out");
        return {};
    }
    const xmlNodeSet* nodes = result->nodesetval;
    if (nodes == nullptr || nodes->nodeNr <= 0 || nodes->nodeTab == nullptr)
    {
        LOG_FAILURE("the expression selects nothing in the descriptor");
        // A result without nodes does not refer to the document, so the
        // document is freed first.
        document.reset();
        return {};
    }

    const XmlText text = firstText(*nodes, attribute.c_str());
    if (text == nullptr || allocations.failed())
    {
        LOG_FAILURE(
            "no selected element has a value for the attribute, or memory is "
            "out");
        return {};
    }
    std::string value = reinterpret_cast<const char*>(text.get());
    result.reset();
    document.reset();
    LOG_ANSWER("the descriptor has the value");
    return value;
}

std::string ValidateQOR::getImageModel(const std::string& packageDir)
{
    return getStrFromPkgXML(joined(packageDir, DESCRIPTOR_FILE_NAME),
                            "//Device", "componentID");
}

std::string ValidateQOR::getImageVersion(const std::string& packageDir)
{
    return getStrFromPkgXML(joined(packageDir, DESCRIPTOR_FILE_NAME),
                            "//SoftwareComponent", "vendorVersion");
}
