#pragma once

#include "handles.hpp"

#include <optional>
#include <string>

namespace velmora
{

/** Parses a descriptor, which nobody has vouched for yet.
 *
 *  Only the file itself is read, as it stands: nothing else that it names, and
 *  nothing is decompressed. What makes a small document a large one, or a
 *  short parse a long one, ends the parse: parameter entities, entities within
 *  entities, large entities, more than a few short defaults of attributes.
 *
 *  @return null when the parser has no document */
XmlDocument parseDescriptor(const std::string& path);

/** Text of the first child of a node's attribute, if there is one; null where
 *  the parser cannot give it. */
std::optional<XmlText> attributeText(xmlNode* node, const char* name);

std::string toString(const XmlText& text);

} // namespace velmora
