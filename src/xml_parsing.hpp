#pragma once

#include "handles.hpp"

#include <optional>
#include <string>

namespace velmora
{

/** Parses a descriptor, which nobody has vouched for yet.
 *
 *  Only the file itself is read, as it stands: nothing else that it names, and
 *  nothing is decompressed. The parse ends where the document is larger than
 *  any real one, or where a small document would become a large one or a long
 *  log. A line that names the limit then stands among the parser's messages.
 *
 *  @return null when the parser has no document, or a limit ended the parse */
XmlDocument parseDescriptor(const std::string& path);

/** Text of the first child of a node's attribute, if there is one; null where
 *  the parser cannot give it. */
std::optional<XmlText> attributeText(xmlNode* node, const char* name);

std::string toString(const XmlText& text);

} // namespace velmora
