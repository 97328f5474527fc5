#pragma once

#include "log_reader.hpp"

#include <nlohmann/json.hpp>

#include <cctype>
#include <string>

/** @file How the commands write their answers in JSON. */

namespace velmora::front
{

/** "exitCode" as "exit code". */
inline std::string inWords(const std::string& name)
{
    std::string words;
    for (const char c : name)
    {
        const auto byte = static_cast<unsigned char>(c);
        words += std::isupper(byte) != 0 ? " " : "";
        words += static_cast<char>(std::tolower(byte));
    }
    return words;
}

inline void to_json(nlohmann::ordered_json& json, const Site& site)
{
    json = {{"file", site.file},
            {"line", site.line},
            {"number", site.number},
            {"text", site.text}};
}

inline nlohmann::ordered_json detailsAsJson(const Operation& operation)
{
    auto object = nlohmann::ordered_json::object();
    for (const Detail& detail : operation.details)
    {
        object[detail.name] = detail.text;
    }
    return object;
}

/** In ASCII, so that nothing in a text moves a terminal's cursor. Paths and
 *  texts of packages may also be no UTF-8. */
inline std::string asText(const nlohmann::ordered_json& json)
{
    return json.dump(2, ' ', true, nlohmann::json::error_handler_t::replace);
}

} // namespace velmora::front
