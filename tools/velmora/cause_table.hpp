#pragma once

#include <map>
#include <string>

/** @file The table of causes that a build of the library carries. */

namespace velmora::front
{

/** A statement of the library that logs a failure. */
struct Site
{
    std::string file;
    int number = 0;
    int line = 0;
    /** "cause", "echo" or "note"; empty where no statement is known. */
    std::string kind;
    std::string text;

    bool operator==(const Site&) const = default;
};

/** The failures that one build of the library can log. */
struct Causes
{
    std::string library;
    std::string buildId = "unknown";
    /** By their number. */
    std::map<int, Site> sites;
};

/** Numbers that each source of the library has. */
inline constexpr int BLOCK = 1000;

/** None where the file has no table.
 *
 *  @throws tools::Error when it cannot be read, or a number is there twice */
Causes readCauses(const std::string& library);

/** Of the library that this program runs with. */
const Causes& linkedCauses();

/** This program's version, and the library that it runs with. */
std::string versionText();

} // namespace velmora::front
