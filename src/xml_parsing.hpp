#pragma once

#include "handles.hpp"

#include <libxml/xmlmemory.h>

#include <cstddef>
#include <optional>
#include <string>

namespace velmora
{

/** Notes whether the parser is refused memory while this object lives.
 *
 *  The parser does not always say so: an element without its name, or a
 *  search that finds nothing, would pass for what the document holds. The
 *  parser gets its memory as before, through functions that look at it. */
class XmlAllocations
{
  public:
    XmlAllocations();
    XmlAllocations(const XmlAllocations&) = delete;
    XmlAllocations& operator=(const XmlAllocations&) = delete;
    ~XmlAllocations();

    bool failed() const;
};

/** Parses a descriptor, which nobody has vouched for yet.
 *
 *  Only the file itself is read, as it stands: nothing else that it names, and
 *  nothing is decompressed. The parse ends where the document is larger than
 *  any real one, or where a small document would become a large one or a long
 *  log. A line that names the limit then stands among the parser's messages.
 *
 *  @return null when the parser has no document, a limit ended the parse, or
 *          the parser was refused memory */
XmlDocument parseDescriptor(const std::string& path,
                            const XmlAllocations& allocations);

/** Text of the first child of a node's attribute, if there is one; null where
 *  the parser cannot give it. */
std::optional<XmlText> attributeText(xmlNode* node, const char* name);

std::string toString(const XmlText& text);

} // namespace velmora
