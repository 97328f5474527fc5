#pragma once

#include "explanation.hpp"

#include <nlohmann/json.hpp>

#include <string>

namespace velmora::front
{

/** "exitCode" as "exit code". */
std::string inWords(const std::string& name);
nlohmann::ordered_json asJson(const Site& site);
nlohmann::ordered_json detailsAsJson(const Operation& operation);

/** In ASCII, so that nothing in a text moves a terminal's cursor. Paths and
 *  texts of packages may also be no UTF-8. */
inline std::string asText(const nlohmann::ordered_json& json)
{
    return json.dump(2, ' ', true, nlohmann::json::error_handler_t::replace);
}

/** Explains a log on stdout.
 *
 *  @param log path, or "-" for standard input
 *  @param library of the build that wrote the log; empty for the linked one
 *  @return whether every failure could be explained
 *  @throws tools::Error when the log or the library cannot be read */
bool explain(const std::string& log, const std::string& library, bool json);

} // namespace velmora::front
