#pragma once

#include "common/handles.hpp"

#include <functional>
#include <string>
#include <string_view>

/** @file The lines of a log in whatever form it was kept: plain, as
 *  journalctl(1) shows it, as a container's JSON, compressed by gzip. */

namespace velmora::front
{

struct LogLine
{
    /** Who wrote it, such as "daemon[412]"; empty where it is not told. */
    std::string_view process;
    /** What a log daemon tells of it: a time, and the process. */
    std::string_view origin;
    /** What the process wrote; begins where a line of ours can begin. */
    std::string_view text;
};

/** Hands on a log line by line. What it keeps is bounded, whatever the log.
 *
 *  @param name stands for it in messages
 *  @throws tools::Error when it cannot be read, or is beyond a bound */
void readLog(const tools::FileDescriptor& file, const std::string& name,
             const std::function<void(const LogLine&)>& sink);

/** Seconds since the epoch as "2026-01-31 00:00:00 UTC"; empty for none. */
std::string date(std::string_view seconds);

} // namespace velmora::front
