#pragma once

#include <cstdint>
#include <map>
#include <string>

/** @file What a build of the library carries of the lines that it logs. */

namespace velmora::front
{

/** What a line of a statement means. */
enum class Kind : std::uint8_t
{
    UNKNOWN,
    CAUSE,
    /** Passes on a failure of Site::source. */
    PASSED_ON,
    /** Takes back a failure of Site::source. */
    PARDON,
    NOTE,
    SUCCESS,
    ANSWER,
};

/** A statement of the library that logs a failure or a success. */
struct Site
{
    std::string file;
    int number = 0;
    int line = 0;
    Kind kind = Kind::UNKNOWN;
    std::string source;
    std::string text;
    /** The line's own message, a printf format; none where it has no text. */
    std::string message;
    /** Whether its source judges, where others only answer. */
    bool judges = false;

    bool operator==(const Site&) const = default;
};

struct CauseTable
{
    std::string library;
    std::string buildId = "unknown";
    /** By their number. */
    std::map<int, Site> sites;

    /** A statement of the source that has the number's block; null where none
     *  has it. */
    const Site* inBlockOf(int number) const;
};

/** None where the file has no table.
 *
 *  @throws tools::Error when it cannot be read, a record is none, or a number
 *          is there twice */
CauseTable readCauses(const std::string& library);

/** Of the library that this program runs with. */
const CauseTable& linkedCauses();

/** This program's version, and the library that it runs with. */
std::string versionText();

} // namespace velmora::front
