#include "log.hpp"
#include "velmora.hpp"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <string>

namespace
{

using namespace velmora;

constexpr const char* UNZIP = "/usr/bin/unzip";
/** Exit status of a child whose program could not be started. */
constexpr int NOT_STARTED = 127;

/** Ends the child of a fork in which no program could be started.
 *
 *  Nothing of the parent's may run or be written twice: std::cerr is tied to
 *  std::cout and would flush what the parent has buffered, so the line goes to
 *  the descriptor directly. A reader of the log that has gone must not turn
 *  the exit into a death by SIGPIPE, which would count as a success. */
[[noreturn]] void endChild(int line = __builtin_LINE())
{
    std::signal(SIGPIPE, SIG_IGN);
    std::array<char, 64> text{};
    const int size =
        std::snprintf(text.data(), text.size(), "Line: %d [FAILURE]\n", line);
    [[maybe_unused]] const ssize_t written =
        write(STDERR_FILENO, text.data(), static_cast<std::size_t>(size));
    _exit(NOT_STARTED);
}

/** Starts the extractor for one member pattern and waits for it.
 *
 *  @param[in,out] waitStatus left as it is when the wait fails
 *  @return the process identifier, negative when the fork failed */
pid_t extract(const std::string& packagePath, const std::string& destination,
              const char* pattern, int& waitStatus)
{
    const pid_t pidUnzip = fork();
    if (pidUnzip == 0)
    {
        execl(UNZIP, UNZIP, "-o", "-q", packagePath.c_str(), "-d",
              destination.c_str(), pattern, static_cast<char*>(nullptr));
        endChild();
    }
    if (pidUnzip > 0)
    {
        waitpid(pidUnzip, &waitStatus, 0);
    }
    return pidUnzip;
}

} // namespace

bool ValidateQOR::unZip(const std::string& packagePath,
                        const std::string& destination)
{
    // Shared by both extractions: a wait that fails leaves it as it was.
    int pidStatus = 0;
    for (const char* pattern : {"package.xml*", "payload*"})
    {
        const pid_t pidUnzip =
            extract(packagePath, destination, pattern, pidStatus);
        if (pidUnzip < 0)
        {
            cerrInfo("pidUnzip: ", pidUnzip);
            cerrFailure();
            return false;
        }
        // Only the exit code counts, not a terminating signal.
        if (WEXITSTATUS(pidStatus) != 0)
        {
            cerrInfo("pidStatus: ", pidStatus);
            cerrFailure();
            return false;
        }
    }
    cerrSuccess();
    return true;
}
