#pragma once

#include "log_reader.hpp"

#include <functional>

namespace velmora::front
{

struct Outcome
{
    bool passed = false;
    /** What the log says was refused last. Text from the input stands in the
     *  log too, but always in front of this. */
    Operation refusal;
};

/** Runs @p work, which tells whether it passed, with stdout and stderr led into
 *  memory, so that neither the library nor a program that it starts mixes with
 *  the answer. With @p verbose, the log goes to stderr afterwards.
 *
 *  @throws tools::Error when the log cannot be kept; whatever the work throws
 */
Outcome run(bool verbose, const std::function<bool()>& work);

} // namespace velmora::front
