#pragma once

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace tools
{

/** An enumeration as its D-Bus strings tell it: a prefix and names. */
template <std::size_t Count>
struct BusEnumeration
{
    std::string_view prefix;
    std::array<std::string_view, Count> names;

    /** The D-Bus string of @p text, which is an enumerator's short name or
     *  already its D-Bus string. */
    std::optional<std::string> complete(std::string_view text) const
    {
        if (text.starts_with(prefix))
        {
            text.remove_prefix(prefix.size());
        }
        if (std::ranges::find(names, text) == names.end())
        {
            return std::nullopt;
        }
        return std::string(prefix).append(text);
    }

    bool holds(std::string_view busString) const
    {
        return complete(busString) == busString;
    }
};

/** In the order of the values. The library's exported table may be another
 *  one's in its place. */
constexpr BusEnumeration<15> VERSION_PURPOSES{
    "xyz.openbmc_project.Software.Version.VersionPurpose.",
    {"Unknown", "Other", "System", "BMC", "Host", "PSU", "SEPBP", "BIOS",
     "CPLD", "TORLU", "FLOPCPLD", "TPM", "RFCMCU", "VALVEMCU", "LEAKMCU"}};

constexpr BusEnumeration<3> RELEASE_TYPES{
    "xyz.openbmc_project.Software.Version.ReleaseType.",
    {"Other", "Production", "Prototype"}};

} // namespace tools
