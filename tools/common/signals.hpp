#pragma once

#include <signal.h>

namespace tools
{

/** Has SIGHUP, SIGINT, SIGQUIT, SIGTERM and SIGXCPU, but for ignored ones, end
 *  the program at once, whatever it is doing: with the signal as its status,
 *  without the directories that removeOnSignal() names, and without the
 *  programs that it has started. Ignores SIGPIPE and SIGXFSZ, and SIGCHLD is
 *  not ignored any more. */
void cleanUpOnSignals();

/** @param directory its path, kept until keepOnSignal() is called for it
 *  @throws std::length_error when there are too many */
void removeOnSignal(const char* directory);
void keepOnSignal(const char* directory) noexcept;

/** While it lives, these signals wait: for steps that belong together. */
class SignalDelay
{
  public:
    SignalDelay();
    SignalDelay(const SignalDelay&) = delete;
    SignalDelay& operator=(const SignalDelay&) = delete;
    ~SignalDelay();

  private:
    sigset_t before_{};
};

} // namespace tools
