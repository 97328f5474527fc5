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
};

/** The document.
 *
 *  @throws Error unless model and version are text that a parser keeps */
Buffer writeDescriptor(const Descriptor& descriptor);

} // namespace pack
