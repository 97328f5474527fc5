#pragma once

#include <map>
#include <string>
#include <string_view>

/** @file The table of causes that a build of the library carries. */

namespace velmora::front
{

/** A statement of the library that logs a failure. */
struct Site
{
    int number = 0;
    std::string file;
    int line = 0;
    /** "cause", "echo" or "note"; empty where no statement is known. */
    std::string kind;
    std::string text;

    bool operator==(const Site&) const = default;
};

/** The failures that one build of the library can log, by their number. */
class CauseTable
{
  public:
    /** Numbers that each source of the library has. */
    static constexpr int BLOCK = 1000;

    /** @throws tools::Error when the file is no library with such a table */
    explicit CauseTable(const std::string& library);

    /** @return null where the library has no such statement */
    const Site* find(int number) const;
    /** The source that logs @p number as something else than a failure, or
     *  empty. */
    std::string fileOf(int number) const;

    const std::string& library() const { return library_; }
    const std::string& buildId() const { return buildId_; }

  private:
    void readTable(std::string_view records);
    void add(const std::string& record);

    std::string library_;
    std::string buildId_ = "none";
    std::map<int, Site> sites_;
};

/** Path of the library that this program runs with. */
std::string linkedLibrary();

} // namespace velmora::front
