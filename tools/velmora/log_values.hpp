#pragma once

#include <string>
#include <string_view>
#include <vector>

/** @file The values that lines of the library carry. */

namespace velmora::front
{

/** A value that the log holds, decoded. */
struct Detail
{
    /** In camelCase. */
    std::string name;
    std::string text;
    /** Whether it says more about a refusal than its cause alone. */
    bool isTelling = false;
};

/** Those of a line, in few words each.
 *
 *  @param text the line's message, or its label and value
 *  @param hasMessage whether values stand within a message */
std::vector<Detail> valuesIn(std::string_view text, bool hasMessage);

/** Seconds since the epoch as "2026-01-31 00:00:00 UTC"; empty for none. */
std::string date(std::string_view seconds);

} // namespace velmora::front
