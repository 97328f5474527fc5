#pragma once

#include "files.hpp"

#include <string>
#include <string_view>
#include <vector>

namespace pack
{

inline constexpr std::string_view DESCRIPTOR_NAME = "package.xml";
inline constexpr std::string_view DESCRIPTOR_SIGNATURE_NAME =
    "package.xml.sign";

struct Descriptor
{
    std::string model;
    std::string version;
    /** The composite digest of the payload. */
    std::string digest;
    std::vector<std::string> systemIds;

    bool operator==(const Descriptor&) const = default;
};

Buffer writeDescriptor(const Descriptor& descriptor);

/** What the checker finds: the first element that carries the attribute
 *  counts. Throws when the text is not XML. */
Descriptor readDescriptor(Bytes xml);

} // namespace pack
