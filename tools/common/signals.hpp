#pragma once

#include <signal.h>

#include <array>

namespace tools
{

/** The signals that ask a program to end. */
inline constexpr std::array END_SIGNALS{SIGHUP, SIGINT, SIGQUIT, SIGTERM};

/** Whether whoever started this program wants it to outlive @p signal, as
 *  nohup(1) does. */
bool isIgnored(int signal);

/** While it lives, END_SIGNALS wait for the work at hand, so that what was
 *  made can be removed. Those that are ignored stay ignored. */
class SignalCleanup
{
  public:
    SignalCleanup();
    SignalCleanup(const SignalCleanup&) = delete;
    SignalCleanup& operator=(const SignalCleanup&) = delete;
    ~SignalCleanup();

    /** The last signal that was made to wait, 0 for none. */
    static int seen();
    /** Ends the process by that signal, if there was one. To be called when
     *  no SignalCleanup lives any more. */
    static void raiseSeen();

  private:
    std::array<struct sigaction, END_SIGNALS.size()> before_{};
};

/** @throws Error when a signal was made to wait */
void throwIfInterrupted();

} // namespace tools
