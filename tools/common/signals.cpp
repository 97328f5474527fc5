#include "signals.hpp"

#include <pthread.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <stdexcept>

namespace tools
{
namespace
{

/** The signals that end a program. */
constexpr std::array END_SIGNALS{SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGXCPU};
constexpr std::size_t MAX_DIRECTORIES = 8;
/** Under its new name, nothing new is put into the directory. A package may
 *  hold directories that do not let their owner in. A signal to the whole group
 *  has two processes do this, if a child was just being started. What the
 *  program has started ends behind it, and may still write. */
constexpr const char* REMOVE =
    "exec 2>/dev/null; mv -T -- \"$1\" \"$1~\" && set -- \"$1~\"; "
    "chmod -R u+rwX -- \"$1\"; n=0; "
    "until rm -rf -- \"$1\" || [ $((n += 1)) -gt 50 ]; do sleep 0.02; done";

std::array<std::atomic<const char*>, MAX_DIRECTORIES> directories{};
pid_t thisProgram = 0;

/** What was interrupted may be the allocator: no call here may need it. */
extern "C" void endBySignal(int signal)
{
    for (const char* const directory : directories)
    {
        const pid_t child = directory != nullptr ? _Fork() : -1;
        if (child == 0)
        {
            // A second signal is not to end it: a shell does not block what
            // it is started with for its own children.
            for (const int each : END_SIGNALS)
            {
                std::signal(each, SIG_IGN);
            }
            execl("/bin/sh", "sh", "-c", REMOVE, "sh", directory,
                  static_cast<char*>(nullptr));
            _exit(EXIT_FAILURE);
        }
        if (child > 0)
        {
            waitpid(child, nullptr, 0);
        }
    }
    // The default action takes effect when this function returns.
    raise(signal);
}

/** Not for the children of a child: it ends, and they are to go on. */
extern "C" void dieWithProgram()
{
    if (getppid() == thisProgram)
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
    }
}

sigset_t endSignals()
{
    sigset_t set{};
    sigemptyset(&set);
    for (const int signal : END_SIGNALS)
    {
        sigaddset(&set, signal);
    }
    return set;
}

} // namespace

void cleanUpOnSignals()
{
    thisProgram = getpid();
    // Where it was ignored, nobody would learn how a child has ended.
    std::signal(SIGCHLD, SIG_DFL);
    // A file that grows too large, a reader or a child that goes away: an
    // error like any other.
    std::signal(SIGXFSZ, SIG_IGN);
    std::signal(SIGPIPE, SIG_IGN);
    pthread_atfork(nullptr, nullptr, dieWithProgram);
    struct sigaction action{};
    action.sa_handler = endBySignal;
    action.sa_mask = endSignals();
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int signal : END_SIGNALS)
    {
        struct sigaction before{};
        sigaction(signal, nullptr, &before);
        // As nohup(1) wants it.
        if (before.sa_handler != SIG_IGN)
        {
            sigaction(signal, &action, nullptr);
        }
    }
}

void removeOnSignal(const char* directory)
{
    auto* const place = std::find(directories.begin(), directories.end(),
                                  static_cast<const char*>(nullptr));
    if (place == directories.end())
    {
        throw std::length_error("too many temporary directories");
    }
    *place = directory;
}

void keepOnSignal(const char* directory) noexcept
{
    std::replace(directories.begin(), directories.end(), directory,
                 static_cast<const char*>(nullptr));
}

SignalDelay::SignalDelay()
{
    const sigset_t set = endSignals();
    pthread_sigmask(SIG_BLOCK, &set, &before_);
}

SignalDelay::~SignalDelay() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

} // namespace tools
