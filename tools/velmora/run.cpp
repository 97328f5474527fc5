#include "run.hpp"

#include "common/error.hpp"
#include "common/files.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <iostream>
#include <sstream>
#include <utility>

namespace velmora::front
{

namespace
{

tools::FileDescriptor copyOf(int file)
{
    tools::FileDescriptor copy(fcntl(file, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    if (copy.get() < 0)
    {
        throw tools::systemError("standard output or standard error");
    }
    return copy;
}

/** Leads stdout and stderr into a file while it lives. */
class Redirection
{
  public:
    explicit Redirection(const tools::FileDescriptor& file)
    {
        std::fflush(nullptr);
        if (dup2(file.get(), STDOUT_FILENO) < 0 ||
            dup2(file.get(), STDERR_FILENO) < 0)
        {
            throw tools::systemError("the log cannot be led elsewhere");
        }
    }
    Redirection(const Redirection&) = delete;
    Redirection& operator=(const Redirection&) = delete;
    ~Redirection()
    {
        std::fflush(nullptr);
        dup2(out_.get(), STDOUT_FILENO);
        dup2(err_.get(), STDERR_FILENO);
    }

  private:
    const tools::FileDescriptor out_ = copyOf(STDOUT_FILENO);
    const tools::FileDescriptor err_ = copyOf(STDERR_FILENO);
};

/** Writes the log to stderr, behind a line that names the build. */
void show(const tools::FileDescriptor& log)
{
    static bool isNamed = false;
    std::cerr << (std::exchange(isNamed, true) ? "" : versionText() + '\n');
    std::istringstream lines(tools::readAll(log, "the log"));
    for (std::string line; std::getline(lines, line);)
    {
        std::cerr << tools::printable(line) << '\n';
    }
    lseek(log.get(), 0, SEEK_SET);
}

} // namespace

Outcome run(bool verbose, const std::function<bool()>& work)
{
    const tools::FileDescriptor log = tools::memoryFile();
    Outcome outcome;
    std::exception_ptr thrown;
    try
    {
        const Redirection redirection(log);
        outcome.passed = work();
    }
    catch (...)
    {
        thrown = std::current_exception();
    }
    lseek(log.get(), 0, SEEK_SET);
    if (verbose)
    {
        show(log);
    }
    if (thrown)
    {
        std::rethrow_exception(thrown);
    }
    const auto keepRefusal = [&outcome](const Operation& operation)
    {
        if (operation.hasFailed())
        {
            outcome.refusal = operation;
        }
    };
    LogReader(linkedCauses(), keepRefusal)
        .readOwn(tools::readAll(log, "the log"));
    return outcome;
}

} // namespace velmora::front
