#pragma once

#include "handles.hpp"
#include "xml_allocations.hpp"

#include <string>

namespace velmora
{

/** Parses a descriptor, which nobody has vouched for yet.
 *
 *  Only the file itself is read, as it stands: nothing else that it names, and
 *  nothing is decompressed. The parse ends where the document is larger than
 *  any real one, or where a small document would become a large one. What is
 *  wrong with the document goes to the process's own function for the parser's
 *  errors, as one line.
 *
 *  @return null when the document cannot be read, is not well-formed or beyond
 *          a limit, or the parser was refused memory */
XmlDocument parseDescriptor(const std::string& path,
                            const XmlAllocations& allocations);

/** What an expression selects.
 *
 *  @return null when the expression is invalid, or the parser was refused
 *          memory */
XPathResult evaluate(xmlDoc* document, const char* expression,
                     const XmlAllocations& allocations);

/** The first child of a node's attribute, which holds the value; null where
 *  there is none.
 *
 *  @param node may be null, which has no attribute */
inline xmlNode* attributeValue(xmlNode* node, const char* name)
{
    const xmlAttr* attribute =
        xmlHasProp(node, reinterpret_cast<const xmlChar*>(name));
    return attribute != nullptr ? attribute->children : nullptr;
}

} // namespace velmora
