#pragma once

#include "cause_table.hpp"
#include "common/handles.hpp"
#include "log_lines.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/** @file What a log of the library says, operation by operation. */

namespace velmora::front
{

/** A value that the log holds, decoded. */
struct Detail
{
    /** In camelCase. */
    std::string name;
    std::string text;
    /** Number of its line. */
    int number = 0;
    /** It says more about a failure that is logged at its number, or less than
     *  so many lines of the source behind it. */
    int reach = 0;
};

/** One operation, from its first line to the last that passes its result on. */
struct Operation
{
    enum class Ending : std::uint8_t
    {
        PASSED,
        REFUSED,
        /** No answer was had: nothing was judged. */
        FAILED,
        /** Something failed, and nothing is refused for it. */
        NOTED,
        /** The log does not tell. */
        OPEN,
        /** The table does not fit the log. */
        UNKNOWN,
    };

    /** Whether it did not give what it was asked for. */
    bool hasFailed() const
    {
        return ending == Ending::REFUSED || ending == Ending::FAILED;
    }
    /** The ending in a word. */
    const char* word() const;
    /** What a detail says, or empty. */
    std::string detail(std::string_view name) const;
    /** The cause with the detail that tells most. */
    std::string reason() const;

    Ending ending = Ending::OPEN;
    /** Whether a judgement is under way, of which a result is logged. */
    bool isBegun = false;
    /** Whether the log names the build whose table is used. */
    bool isBuildKnown = false;
    /** The statement that refused, or the last one where all passed. */
    Site site;
    /** Statements that passed the refusal on. */
    std::vector<Site> echoes;
    /** Harmless failures on the way, each once. */
    std::vector<Site> notes;
    /** One of each name. */
    std::vector<Detail> details;
};

/** Reads a log, with lines of others between ours. Each process has its own
 *  operations. Its memory is bounded, whatever the log. */
class LogReader
{
  public:
    using Sink = std::function<void(const Operation&)>;

    /** @param sink gets the operations, those of a process in their order */
    LogReader(const CauseTable& table, Sink sink) :
        table_(table), sink_(std::move(sink))
    {
    }

    /** @param name stands for it in messages
     *  @throws tools::Error when it cannot be read */
    void read(const tools::FileDescriptor& file, const std::string& name);

    /** @param log what one process with the library of the table has written
     */
    void readOwn(std::string_view log);

    /** Lines of the library so far. */
    std::size_t lines() const { return lines_; }

    /** What shows that another build wrote the log, or empty. It is to be
     *  asked when all is read: no operation is to be believed then. */
    const std::string& objection() const { return objection_; }

  private:
    struct Line;
    struct Process
    {
        std::string name;
        /** What was refused last, until nothing more can pass it on. */
        std::optional<Operation> refusal = std::nullopt;
        Operation now = {};
    };

    static std::optional<Line> parse(std::string_view text);
    Process& processOf(std::string_view name);
    void take(const LogLine& logLine);
    void takeVersion(const LogLine& line, bool isFirst);
    void takeLine(Process& process, const Line& line);
    std::string objectionTo(const Process& process, const Line& line) const;
    void doubt(const std::string& objection);
    void takeFailure(Process& process, const Line& line, const Site& site);
    void takeRefusal(Process& process, const Line& line, const Site& site);
    void add(Operation operation);
    void finishRefusal(Process& process);
    void finish(Process& process);
    void finishAll();

    const CauseTable& table_;
    Sink sink_;
    bool isBuildKnown_ = false;
    /** Whether the first line names the build. */
    bool isNamedFirst_ = false;
    /** Whether there were lines of the library that tell no process. */
    bool hasBareLines_ = false;
    std::string objection_;
    /** The one that wrote last stands first. */
    std::list<Process> processes_;
    bool isEmpty_ = true;
    std::size_t lines_ = 0;
};

} // namespace velmora::front
