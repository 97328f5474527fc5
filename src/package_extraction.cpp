#define LOG_BLOCK 2000

#include "log.hpp"
#include "velmora.hpp"

#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace
{

constexpr const char* UNZIP = "/usr/bin/unzip";
/** The variables from which the extractor takes further options. */
constexpr std::array<std::string_view, 4> OPTION_VARIABLES{
    "UNZIP=", "UNZIPOPT=", "ZIPINFO=", "ZIPINFOOPT="};
/** Exit status of a child whose program could not be started. */
constexpr int NOT_STARTED = 127;

/** This process's environment without the extractor's own variables. */
std::vector<char*> extractorEnvironment()
{
    std::vector<char*> environment;
    for (char** variable = environ; variable != nullptr && *variable != nullptr;
         ++variable)
    {
        const std::string_view text = *variable;
        if (std::none_of(OPTION_VARIABLES.begin(), OPTION_VARIABLES.end(),
                         [text](std::string_view name)
                         { return text.starts_with(name); }))
        {
            environment.push_back(*variable);
        }
    }
    environment.push_back(nullptr);
    return environment;
}

/** Has all file descriptors but those of the standard streams closed when the
 *  extractor starts. */
void markInherited()
{
    // Not every C library has a function for it.
    if (syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) ==
        0)
    {
        return;
    }
    // A kernel before 5.11 cannot do it.
    for (long number = sysconf(_SC_OPEN_MAX) - 1; number > STDERR_FILENO;
         --number)
    {
        fcntl(static_cast<int>(number), F_SETFD, FD_CLOEXEC);
    }
}

/** Gives the child no input, no terminal, and no file descriptor but 1 and 2.
 *
 *  The extractor asks for a password on the terminal, and on standard input
 *  what to do when the disk is full. It gets neither. All that is opened here
 *  gets the number 0: the process may have no other one free. */
bool isolateChild()
{
    markInherited();
    close(STDIN_FILENO);
    // The child gives up the terminal, but stays in its process group: Ctrl-C
    // still ends it together with the program that called us.
    const int terminal = open("/dev/tty", O_RDWR | O_NOCTTY);
    const bool none = terminal < 0 && (errno == ENXIO || errno == ENOENT ||
                                       errno == EACCES || errno == EPERM);
    return (none ||
            (ioctl(terminal, TIOCNOTTY) == 0 && close(terminal) == 0)) &&
           open("/dev/null", O_RDONLY) == STDIN_FILENO;
}

/** Ends the child of a fork in which no program could be started.
 *
 *  Nothing of the parent's may run or be written twice. std::cerr is tied to
 *  std::cout and would flush what the parent has buffered there, so the line
 *  goes to the file descriptor directly. Where nobody reads the log any more,
 *  SIGPIPE must not end the child: that would count as a success. */
[[noreturn]] void endChild(int number)
{
    std::signal(SIGPIPE, SIG_IGN);
    std::array<char, 64> text{};
    const int size =
        std::snprintf(text.data(), text.size(), "Line: %d [FAILURE]\n", number);
    [[maybe_unused]] const ssize_t written =
        write(STDERR_FILENO, text.data(), static_cast<std::size_t>(size));
    _exit(NOT_STARTED);
}

/** Starts the extractor for one member pattern.
 *
 *  @param failureNumber of the line that the child writes when no program
 *         could be started in it
 *  @return the process identifier, negative when the fork failed */
pid_t startExtractor(const std::string& packagePath,
                     const std::string& destination, const char* pattern,
                     int failureNumber)
{
    std::vector<char*> environment = extractorEnvironment();
    const pid_t child = fork();
    if (child == 0)
    {
        if (isolateChild())
        {
            environ = environment.data();
            execl(UNZIP, UNZIP, "-o", "-q", packagePath.c_str(), "-d",
                  destination.c_str(), pattern, static_cast<char*>(nullptr));
        }
        endChild(failureNumber);
    }
    return child;
}

} // namespace

bool ValidateQOR::unZip(const std::string& packagePath,
                        const std::string& destination)
{
    // Shared by both extractions: a wait that fails leaves it as it was. Of a
    // status only the exit code counts, not a signal that ended the child.
    int pidStatus = 0;
    pid_t pidUnzip = startExtractor(
        packagePath, destination, "package.xml*",
        LOG_CHILD_FAILURE("unzip could not be started for the descriptor"));
    if (pidUnzip < 0)
    {
        LOG_INFO("pidUnzip: ", pidUnzip);
        LOG_FAILURE("no process could be made to extract the descriptor");
        return false;
    }
    waitpid(pidUnzip, &pidStatus, 0);
    if (WEXITSTATUS(pidStatus) != 0)
    {
        LOG_INFO("pidStatus: ", pidStatus);
        LOG_FAILURE("unzip failed to extract the descriptor");
        return false;
    }

    pidUnzip = startExtractor(
        packagePath, destination, "payload*",
        LOG_CHILD_FAILURE("unzip could not be started for the payload"));
    if (pidUnzip < 0)
    {
        LOG_INFO("pidUnzip: ", pidUnzip);
        LOG_FAILURE("no process could be made to extract the payload");
        return false;
    }
    waitpid(pidUnzip, &pidStatus, 0);
    if (WEXITSTATUS(pidStatus) != 0)
    {
        LOG_INFO("pidStatus: ", pidStatus);
        LOG_FAILURE("unzip failed to extract the payload");
        return false;
    }
    LOG_SUCCESS("the extraction");
    return true;
}
