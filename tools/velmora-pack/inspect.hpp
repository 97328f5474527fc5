#pragma once

#include "files.hpp"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace pack
{

using Json = nlohmann::ordered_json;

/** The names of the kinds of files that are known. */
std::vector<std::string> kindNames();

/** The name of the kind that a file's content tells, or "unknown". */
std::string kindOf(const Source& file);

/** Lists the fields of a file that may be hostile, and remarks on them.
 *
 *  @param kind one of the names; empty, the file's content tells, except for
 *         a signed image
 *  @throws Error on a file that is not of its kind */
Json inspect(const Source& file, std::string_view kind);

/** The fields as indented lines of printable text. */
std::string renderText(const Json& fields);

/** The date and time of seconds since 1970. */
std::string dateText(std::int64_t seconds);

// The fields of each kind.
Json describePackage(const Source& file, Remarks& remarks);
Json describeDescriptor(const Source& file, Remarks& remarks);
Json describeSignature(const Source& file, Remarks& remarks);
Json describeImage(const Source& file, Remarks& remarks);
Json describeManifest(const Source& file, Remarks& remarks);
Json describePayload(const Source& file, Remarks& remarks);
/** Of each signature in a detached one, as gpg tells it. */
Json describeSignatures(Bytes file, Remarks& remarks);

// Whether a file looks like one of that kind.
bool isSignature(const Source& file);
bool isManifest(const Source& file);
/** @param withMetadata a chain alone is not enough */
bool isPayload(const Source& file, bool withMetadata);

} // namespace pack
