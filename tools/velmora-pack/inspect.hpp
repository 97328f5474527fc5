#pragma once

#include "files.hpp"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace pack
{

/** The names of the kinds of files that are known. */
std::vector<std::string> kindNames();

/** Lists the fields of a file that may be hostile, and remarks on them.
 *
 *  @param kind one of the names; empty, the file's content must tell, which a
 *         signed image's cannot
 *  @throws Error on a file that is not of its kind */
nlohmann::ordered_json inspect(const Source& file, std::string_view kind);

/** The fields as indented lines of printable text. */
std::string renderText(const nlohmann::ordered_json& fields);

/** The date and time of seconds since 1970. */
std::string dateText(std::int64_t seconds);

} // namespace pack
