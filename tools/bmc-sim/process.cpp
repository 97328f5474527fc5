#include "process.hpp"

#include "failure.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>

namespace bmc_sim
{
namespace
{

constexpr std::array endSignals{SIGINT, SIGTERM, SIGHUP, SIGQUIT};

sigset_t endSignalSet()
{
    sigset_t set{};
    sigemptyset(&set);
    for (const int signal : endSignals)
    {
        sigaddset(&set, signal);
    }
    return set;
}

sigset_t heldSignalSet()
{
    sigset_t set = endSignalSet();
    sigaddset(&set, SIGCHLD);
    return set;
}

/** The signal mask of a new program. A tool keeps the end signals blocked:
 *  it goes on when the terminal interrupts COMMAND. */
void releaseSignals(bool isCommand)
{
    sigset_t set{};
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    if (isCommand)
    {
        set = heldSignalSet();
    }
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

void redirect(int descriptor, int standard)
{
    if (descriptor >= 0)
    {
        dup2(descriptor, standard);
    }
}

/** The child's way from fork() to the program; errno goes to `report`. */
[[noreturn]] void becomeProgram(const Program& program, int report)
{
    redirect(program.input, STDIN_FILENO);
    redirect(program.output, STDOUT_FILENO);
    redirect(program.error, STDERR_FILENO);
    for (const int descriptor : program.kept)
    {
        fcntl(descriptor, F_SETFD, 0);
    }
    std::vector<char*> pointers;
    for (const std::string& argument : program.arguments)
    {
        pointers.push_back(const_cast<char*>(argument.c_str()));
    }
    pointers.push_back(nullptr);
    releaseSignals(program.isCommand);
    execvp(pointers.front(), pointers.data());
    const int error = errno;
    [[maybe_unused]] const auto written = write(report, &error, sizeof(error));
    _exit(exitFailure);
}

int waitFor(pid_t child)
{
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR)
    {
    }
    return status;
}

int exitStatus(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status)
                             : exitSignalBase + WTERMSIG(status);
}

/** Reaps all that ended; the exit status of `child` if it is among them. */
std::optional<int> reap(pid_t child)
{
    std::optional<int> result;
    int status = 0;
    pid_t ended = 0;
    while ((ended = waitpid(-1, &status, WNOHANG)) > 0)
    {
        if (ended == child)
        {
            result = exitStatus(status);
        }
    }
    return result;
}

std::vector<pid_t> childrenOf(pid_t process)
{
    // The /proc of another namespace has other numbers.
    std::error_code error;
    if (std::filesystem::read_symlink("/proc/self", error) !=
        std::to_string(getpid()))
    {
        return {};
    }
    const std::string number = std::to_string(process);
    std::ifstream list("/proc/" + number + "/task/" + number + "/children");
    std::vector<pid_t> children;
    for (pid_t child = 0; list >> child;)
    {
        children.push_back(child);
    }
    return children;
}

} // namespace

Pipe makePipe()
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) < 0)
    {
        throw systemFailure("pipe");
    }
    return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

FileDescriptor makeBuffer(std::string_view content)
{
    FileDescriptor buffer(memfd_create("bmc-sim", MFD_CLOEXEC));
    if (buffer.get() < 0 ||
        pwrite(buffer.get(), content.data(), content.size(), 0) < 0)
    {
        throw systemFailure("buffer");
    }
    return buffer;
}

std::string readAll(const FileDescriptor& file)
{
    std::string text;
    std::array<char, 4096> chunk{};
    for (;;)
    {
        const ssize_t count = read(file.get(), chunk.data(), chunk.size());
        if (count > 0)
        {
            text.append(chunk.data(), static_cast<std::size_t>(count));
        }
        else if (count == 0 || errno != EINTR)
        {
            return text;
        }
    }
}

std::string bufferContent(const FileDescriptor& buffer)
{
    lseek(buffer.get(), 0, SEEK_SET);
    return readAll(buffer);
}

std::string firstLine(const std::string& text)
{
    return text.substr(0, text.find('\n'));
}

void holdSignals()
{
    const sigset_t set = heldSignalSet();
    sigprocmask(SIG_BLOCK, &set, nullptr);
}

std::optional<int> takeEndSignal()
{
    const sigset_t set = endSignalSet();
    const timespec atOnce{};
    const int signal = sigtimedwait(&set, nullptr, &atOnce);
    return signal > 0 ? std::optional(signal) : std::nullopt;
}

pid_t forkProcess(bool isBound)
{
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0)
    {
        throw systemFailure("fork");
    }
    if (child == 0 && isBound)
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
        {
            _exit(exitFailure);
        }
    }
    return child;
}

pid_t spawn(const Program& program)
{
    Pipe report = makePipe();
    const pid_t child = forkProcess(program.isBound);
    if (child == 0)
    {
        becomeProgram(program, report.writer.get());
    }
    report.writer.reset();
    const std::string answer = readAll(report.reader);
    int error = 0;
    if (answer.size() != sizeof(error))
    {
        return child;
    }
    std::memcpy(&error, answer.data(), sizeof(error));
    waitFor(child);
    const int status = !program.isCommand ? exitFailure
                       : error == ENOENT  ? exitNotFound
                                          : exitNotExecutable;
    throw Failure(program.arguments.front() + ": " + std::strerror(error),
                  status);
}

Outcome runTool(const Arguments& arguments, std::string_view input)
{
    const FileDescriptor source = makeBuffer(input);
    const FileDescriptor output = makeBuffer();
    const pid_t child = spawn({.arguments = arguments,
                               .input = source.get(),
                               .output = output.get(),
                               .error = output.get()});
    const int status = exitStatus(waitFor(child));
    return {status, bufferContent(output)};
}

int supervise(pid_t child, const std::function<void(int)>& forward)
{
    const sigset_t set = heldSignalSet();
    for (;;)
    {
        siginfo_t info{};
        if (sigwaitinfo(&set, &info) < 0)
        {
            continue;
        }
        if (info.si_signo == SIGCHLD)
        {
            if (const auto status = reap(child))
            {
                return *status;
            }
        }
        // What the kernel sends on behalf of the terminal has reached the
        // whole process group already.
        else if (info.si_code <= 0 || getpgid(child) != getpgrp())
        {
            forward(info.si_signo);
        }
    }
}

void signalTree(pid_t root, int signal)
{
    // A shell that sees its child die first would start the next command.
    const std::vector<pid_t> children = childrenOf(root);
    kill(root, signal);
    for (const pid_t child : children)
    {
        signalTree(child, signal);
    }
}

void killDescendants()
{
    // The children of a killed process become ours, hence the outer loop.
    for (;;)
    {
        const std::vector<pid_t> children = childrenOf(getpid());
        if (children.empty())
        {
            return;
        }
        for (const pid_t child : children)
        {
            kill(child, SIGKILL);
        }
        waitpid(-1, nullptr, 0);
    }
}

} // namespace bmc_sim
