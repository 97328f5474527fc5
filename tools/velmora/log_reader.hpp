#pragma once

#include "cause_table.hpp"
#include "common/handles.hpp"
#include "log_lines.hpp"
#include "log_values.hpp"

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

/** Whether the build whose table is used wrote the log. */
enum class Tie : std::uint8_t
{
    ASSUMED,
    /** The log names it. */
    KNOWN,
    /** The log names another. */
    REFUTED,
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
    /** The cause with the detail that tells most. */
    std::string reason() const;

    Ending ending = Ending::OPEN;
    Tie tie = Tie::ASSUMED;
    /** The statement that refused, or the last one where all passed. */
    Site site;
    /** Statements that passed the refusal on. */
    std::vector<Site> echoes;
    /** Harmless failures on the way. */
    std::vector<Site> notes;
    std::vector<Detail> details;
    /** Text of the exception that made it fail, where one did. */
    std::string exception;
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

  private:
    struct Line;
    struct Process
    {
        std::string name;
        /** What was refused last, until nothing more can pass it on. */
        std::optional<Operation> refusal = std::nullopt;
        Operation now = {};
        // GCC wants what clang-tidy calls redundant.
        // NOLINTBEGIN(readability-redundant-member-init)
        /** Text of an exception that the line before told. */
        std::string exception = {};
        /** Not handed on yet: a later line may show another build. */
        std::vector<Operation> done = {};
        // NOLINTEND(readability-redundant-member-init)
        bool isDoubted = false;
    };

    static std::optional<Line> parse(std::string_view text);
    static std::optional<Line> find(std::string_view text);
    static void addDetails(Operation& operation, const Line& line);
    std::string objectionTo(const Process& process, const Line& line) const;
    Process& processOf(std::string_view name);
    void take(const LogLine& logLine);
    void takeVersion(Process& process, std::string_view text);
    void takeLine(Process& process, const Line& line);
    void takeFailure(Process& process, const Line& line, const Site& site);
    void takeRefusal(Process& process, const Line& line, const Site& site);
    void doubt(Process& process, const std::string& objection);
    void finishRefusal(Process& process);
    void add(Process& process, Operation operation);
    void finishOpen(Process& process);
    void handOn(Process& process);
    void finish(Process& process);
    void finishAll();

    const CauseTable& table_;
    Sink sink_;
    Tie tie_ = Tie::ASSUMED;
    /** The build that the log names. */
    std::string named_;
    /** The one that wrote last stands first. */
    std::list<Process> processes_;
    std::size_t lines_ = 0;
};

} // namespace velmora::front
