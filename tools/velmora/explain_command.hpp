#pragma once

#include <string>

namespace velmora::front
{

/** Explains a log on stdout.
 *
 *  @param log path, or "-" for standard input
 *  @param library of the build that wrote the log; empty for the linked one
 *  @return whether every failure could be explained
 *  @throws tools::Error when the log or the library cannot be read */
bool explain(const std::string& log, const std::string& library, bool json);

} // namespace velmora::front
