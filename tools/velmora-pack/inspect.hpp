#pragma once

#include "files.hpp"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace pack
{

enum class Kind
{
    package,
    descriptor,
    manifest,
    image,
    payload,
    signature,
};

/** The kind of that name, if there is one. */
std::optional<Kind> kindOf(std::string_view name);

/** Lists the fields of a file that may be hostile. Without a kind the file
 *  must tell what it is; a signed image cannot. Throws Error on a file that is
 *  not of its kind. A Source of bytes in memory serves a fuzzer. */
nlohmann::ordered_json inspect(const Source& file, std::optional<Kind> kind);

/** The fields as indented text of plain ASCII. */
std::string renderText(const nlohmann::ordered_json& fields);

} // namespace pack
