#pragma once

#include "cause_table.hpp"
#include "common/handles.hpp"

#include <cstddef>
#include <functional>
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
    /** Whether it says more about a refusal than its cause alone. */
    bool isTelling = false;
};

/** One operation, from its first line to the last that passes its result on. */
struct Operation
{
    bool refused = false;
    /** The statement that refused, or the last one where all passed. */
    Site site;
    /** Statements that passed the refusal on. */
    std::vector<Site> echoes;
    /** Harmless failures on the way. */
    std::vector<Site> notes;
    std::vector<Detail> details;
    /** Text of the exception that made it fail, where one did. */
    std::string exception;

    /** The cause with the detail that tells most. */
    std::string reason() const;
};

/** Seconds since the epoch as "2026-01-31 00:00:00 UTC"; empty for none. */
std::string date(std::string_view seconds);

/** Reads a log, with lines of others between ours and anything in front of
 *  ours. Its memory is bounded, whatever the log. */
class LogReader
{
  public:
    using Sink = std::function<void(const Operation&)>;

    /** @param sink gets each operation when it has come to its end */
    LogReader(const Causes& causes, Sink sink) :
        causes_(causes), sink_(std::move(sink))
    {
    }

    /** @param name stands for it in messages
     *  @throws tools::Error when it cannot be read */
    void read(const tools::FileDescriptor& file, const std::string& name);

    /** FAILURE lines so far, and those whose number is unknown. */
    std::size_t failures() const { return failures_; }
    std::size_t unknown() const { return unknown_; }

  private:
    struct Line;

    static std::optional<Line> parse(std::string_view text);
    static std::optional<Line> find(std::string_view text);
    static void addDetails(Operation& operation, const Line& line);
    void take(std::string_view text);
    void takeFailure(const Line& line);
    void takeSuccess(const Line& line);
    void finishRefusal();

    const Causes& causes_;
    Sink sink_;
    /** What was refused last, until nothing more can pass it on. */
    std::optional<Operation> refusal_;
    Operation now_;
    std::size_t failures_ = 0;
    std::size_t unknown_ = 0;
    /** Text of an exception that the line before told. */
    std::string exception_;
};

} // namespace velmora::front
