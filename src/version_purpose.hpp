#pragma once

#include "velmora.hpp"

#include <string>
#include <string_view>

namespace velmora
{

/** @return D-Bus string of the value
 *  @throws std::invalid_argument (the value in decimal) when it has none */
std::string purposeToString(ValidateQOR::VersionPurpose purpose);

/** @copydoc purposeToString */
std::string releaseTypeToString(ValidateQOR::ReleaseType releaseType);

/** @param text whole D-Bus string
 *  @throws sdbusplus::exception::InvalidEnumString when no value has it */
ValidateQOR::VersionPurpose stringToPurpose(const std::string& text);

} // namespace velmora
