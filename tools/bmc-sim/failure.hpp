#pragma once

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace bmc_sim
{

// The exit statuses of env(1), which callers of a wrapper know already.
constexpr int exitUsage = 2;
constexpr int exitFailure = 125;
constexpr int exitNotExecutable = 126;
constexpr int exitNotFound = 127;
constexpr int exitSignalBase = 128;

/** What keeps bmc-sim from its work, in one line, and its exit status. */
class Failure : public std::runtime_error
{
  public:
    explicit Failure(const std::string& text, int status = exitFailure) :
        std::runtime_error(text), exitStatus(status)
    {
    }

    [[nodiscard]] int status() const noexcept { return exitStatus; }

  private:
    int exitStatus;
};

/** A failed system call on `subject`, told with the text of errno. */
inline Failure systemFailure(const std::string& subject)
{
    return Failure(subject + ": " + std::strerror(errno));
}

} // namespace bmc_sim
