#pragma once

#include "common/error.hpp"

namespace bmc_sim
{

using tools::Error;
using tools::systemError;

// Wrong usage is 2 in all tools. The others are those of env(1), which callers
// of a wrapper know already.
inline constexpr int WRONG_USAGE = 2;
inline constexpr int FAILED = 125;
inline constexpr int NOT_EXECUTABLE = 126;
inline constexpr int NOT_FOUND = 127;
inline constexpr int KILLED_BY_SIGNAL = 128;

/** An error with an exit status of its own; that of others is FAILED. */
class Failure : public Error
{
  public:
    Failure(std::string_view subject, std::string_view what, int status) :
        Error(subject, what), status_(status)
    {
    }

    int status() const noexcept { return status_; }

  private:
    int status_;
};

} // namespace bmc_sim
