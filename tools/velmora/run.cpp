#include "run.hpp"

#include "common/error.hpp"
#include "common/files.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <utility>

namespace velmora::front
{

namespace
{

/** Leads a standard descriptor elsewhere while it lives. */
class Redirection
{
  public:
    Redirection(int from, const tools::FileDescriptor& to) :
        from_(from), saved_(fcntl(from, F_DUPFD_CLOEXEC, STDERR_FILENO + 1))
    {
        if (saved_.get() < 0)
        {
            throw tools::systemError("the log cannot be led elsewhere");
        }
        flushStreams();
        dup2(to.get(), from_);
    }
    Redirection(const Redirection&) = delete;
    Redirection& operator=(const Redirection&) = delete;
    ~Redirection()
    {
        flushStreams();
        dup2(saved_.get(), from_);
    }

  private:
    static void flushStreams()
    {
        std::cout.flush();
        std::fflush(nullptr);
    }

    int from_;
    tools::FileDescriptor saved_;
};

/** Shows the log, if it is to be shown, and goes back to its start. */
void finish(const tools::FileDescriptor& log, bool isShown)
{
    lseek(log.get(), 0, SEEK_SET);
    std::cerr << (isShown ? tools::readAll(log, "the log") : "");
    lseek(log.get(), 0, SEEK_SET);
}

} // namespace

Outcome run(bool verbose, const std::function<bool()>& work)
{
    static bool isNamed = false;
    if (verbose && !std::exchange(isNamed, true))
    {
        std::cerr << versionText() << '\n';
    }
    const tools::FileDescriptor log = tools::memoryFile();
    Outcome outcome;
    try
    {
        const Redirection out(STDOUT_FILENO, log);
        const Redirection err(STDERR_FILENO, log);
        outcome.passed = work();
    }
    catch (...)
    {
        finish(log, verbose);
        throw;
    }
    finish(log, verbose);
    Explainer(
        linkedCauses(), [&outcome](const Operation& operation)
        { outcome.refusal = operation.refused ? operation : outcome.refusal; })
        .read(log.get(), "the log");
    return outcome;
}

} // namespace velmora::front
