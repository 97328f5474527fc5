#pragma once

#include <string>

namespace velmora::front
{

/** Explains a log on stdout.
 *
 *  @param log path, or "-" for standard input
 *  @param library of the build that wrote the log; empty for the linked one
 *  @throws tools::Error when something of it cannot be explained, or read */
void explain(const std::string& log, const std::string& library, bool json);

} // namespace velmora::front
