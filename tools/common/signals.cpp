#include "signals.hpp"

#include "error.hpp"

#include <csignal>
#include <cstddef>

namespace tools
{
namespace
{

volatile std::sig_atomic_t signalSeen = 0;

extern "C" void rememberSignal(int signal) { signalSeen = signal; }

} // namespace

bool isIgnored(int signal)
{
    struct sigaction action{};
    sigaction(signal, nullptr, &action);
    return action.sa_handler == SIG_IGN;
}

SignalCleanup::SignalCleanup()
{
    struct sigaction action{};
    action.sa_handler = rememberSignal;
    action.sa_flags = SA_RESTART;
    for (std::size_t i = 0; i < END_SIGNALS.size(); ++i)
    {
        sigaction(END_SIGNALS[i], isIgnored(END_SIGNALS[i]) ? nullptr : &action,
                  &before_[i]);
    }
}

SignalCleanup::~SignalCleanup()
{
    for (std::size_t i = 0; i < END_SIGNALS.size(); ++i)
    {
        sigaction(END_SIGNALS[i], &before_[i], nullptr);
    }
}

int SignalCleanup::seen() { return signalSeen; }

void SignalCleanup::raiseSeen()
{
    if (signalSeen != 0)
    {
        raise(signalSeen);
    }
}

void throwIfInterrupted()
{
    if (SignalCleanup::seen() != 0)
    {
        throw Error("interrupted", "nothing was made");
    }
}

} // namespace tools
