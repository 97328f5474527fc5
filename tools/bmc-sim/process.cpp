#include "process.hpp"

#include "common/files.hpp"
#include "common/signals.hpp"
#include "failure.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace bmc_sim
{
namespace
{

/** Without those that are ignored: whoever started us wants us to go on. */
sigset_t endSignals()
{
    sigset_t set{};
    sigemptyset(&set);
    for (const int signal : tools::END_SIGNALS)
    {
        if (!tools::isIgnored(signal))
        {
            sigaddset(&set, signal);
        }
    }
    return set;
}

/** The child's way from fork() to the program; errno goes to @p report. */
[[noreturn]] void becomeProgram(const Program& program, int report)
{
    int standard = 0;
    for (const int stream : {program.input, program.output, program.error})
    {
        dup2(stream < 0 ? standard : stream, standard);
        ++standard;
    }
    for (const int number : program.kept)
    {
        fcntl(number, F_SETFD, 0);
    }
    std::vector<char*> pointers;
    for (const std::string& argument : program.arguments)
    {
        pointers.push_back(const_cast<char*>(argument.c_str()));
    }
    pointers.push_back(nullptr);
    // A tool keeps the end signals blocked: it goes on when the terminal
    // interrupts COMMAND.
    sigset_t mask{};
    sigemptyset(&mask);
    if (!program.isCommand)
    {
        mask = endSignals();
    }
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    execvp(pointers.front(), pointers.data());
    const int error = errno;
    [[maybe_unused]] const auto written = write(report, &error, sizeof(error));
    _exit(FAILED);
}

int exitStatus(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status)
                             : KILLED_BY_SIGNAL + WTERMSIG(status);
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

/** Waits for a signal number from the outer bmc-sim. This process ends when
 *  that one does. */
int receiveSignal(int lifeline)
{
    int signal = 0;
    if (read(lifeline, &signal, sizeof(signal)) != sizeof(signal))
    {
        _exit(FAILED);
    }
    return signal;
}

struct Watch
{
    pid_t child;
    const std::function<void(int)>& forward;
};

/** Reaps all that ended, and ends @p loop when the child is among them. */
void reap(const Watch& watch, sd_event* loop)
{
    int status = 0;
    pid_t ended = 0;
    while ((ended = waitpid(-1, &status, WNOHANG)) > 0)
    {
        if (ended == watch.child)
        {
            sd_event_exit(loop, exitStatus(status));
        }
    }
}

int onSignal(sd_event_source* source, const signalfd_siginfo* info, void* data)
{
    const Watch& watch = *static_cast<const Watch*>(data);
    if (info->ssi_signo == SIGCHLD)
    {
        reap(watch, sd_event_source_get_event(source));
    }
    // What the kernel sends on behalf of the terminal has reached the whole
    // process group already.
    else if (info->ssi_code <= 0 || getpgid(watch.child) != getpgrp())
    {
        watch.forward(static_cast<int>(info->ssi_signo));
    }
    return 0;
}

int onLifeline(sd_event_source*, int lifeline, std::uint32_t, void* data)
{
    static_cast<const Watch*>(data)->forward(receiveSignal(lifeline));
    return 0;
}

} // namespace

int check(int result, const char* step)
{
    if (result < 0)
    {
        throw Error(step, std::strerror(-result));
    }
    return result;
}

EventLoop makeLoop()
{
    sd_event* created = nullptr;
    check(sd_event_new(&created), "event loop");
    return EventLoop(created);
}

Pipe makePipe()
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) < 0)
    {
        throw systemError("pipe");
    }
    return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

std::string contentOf(const FileDescriptor& file)
{
    lseek(file.get(), 0, SEEK_SET);
    return tools::readAll(file, "a tool's output");
}

std::string firstLine(const std::string& text)
{
    return text.substr(0, text.find('\n'));
}

void holdSignals()
{
    sigset_t set = endSignals();
    sigaddset(&set, SIGCHLD);
    sigprocmask(SIG_BLOCK, &set, nullptr);
}

std::optional<int> takeEndSignal(int lifeline)
{
    pollfd source{lifeline, POLLIN, 0};
    if (poll(&source, 1, 0) > 0)
    {
        return receiveSignal(lifeline);
    }
    const sigset_t set = endSignals();
    const timespec atOnce{};
    const int signal = sigtimedwait(&set, nullptr, &atOnce);
    return signal > 0 ? std::optional(signal) : std::nullopt;
}

pid_t spawn(const Program& program)
{
    Pipe report = makePipe();
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0)
    {
        throw systemError("fork");
    }
    if (child == 0)
    {
        if (program.isBound)
        {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
        }
        if (getppid() != parent)
        {
            _exit(FAILED);
        }
        becomeProgram(program, report.writer.get());
    }
    report.writer.reset();
    int error = 0;
    if (read(report.reader.get(), &error, sizeof(error)) != sizeof(error))
    {
        return child;
    }
    waitpid(child, nullptr, 0);
    const int status = !program.isCommand ? FAILED
                       : error == ENOENT  ? NOT_FOUND
                                          : NOT_EXECUTABLE;
    const bool isToolMissing = !program.isCommand && error == ENOENT;
    throw Failure(
        program.arguments.front(),
        std::strerror(error) +
            std::string(isToolMissing ? "; bmc-sim needs it: install it" : ""),
        status);
}

Outcome runTool(const Arguments& arguments, std::string_view input)
{
    const FileDescriptor source = tools::memoryFile(input);
    const FileDescriptor output = tools::memoryFile();
    // Not killed with us: the tool ends soon, and killing bubblewrap midway
    // would leave its child waiting.
    const pid_t child = spawn({.arguments = arguments,
                               .input = source.get(),
                               .output = output.get(),
                               .error = output.get(),
                               .kept = {},
                               .isBound = false});
    int status = 0;
    waitpid(child, &status, 0);
    return {exitStatus(status), contentOf(output)};
}

int supervise(sd_event* loop, pid_t child, int lifeline,
              const std::function<void(int)>& forward)
{
    Watch watch{child, forward};
    check(sd_event_add_signal(loop, nullptr, SIGCHLD, onSignal, &watch),
          "SIGCHLD");
    for (const int signal : tools::END_SIGNALS)
    {
        if (!tools::isIgnored(signal))
        {
            check(sd_event_add_signal(loop, nullptr, signal, onSignal, &watch),
                  "signals");
        }
    }
    if (lifeline >= 0)
    {
        check(sd_event_add_io(loop, nullptr, lifeline, POLLIN, onLifeline,
                              &watch),
              "lifeline");
    }
    return check(sd_event_loop(loop), "event loop");
}

void signalTree(pid_t root, int signal)
{
    // The parent first: a shell whose child dies would start its next command.
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
    for (auto children = childrenOf(getpid()); !children.empty();
         children = childrenOf(getpid()))
    {
        for (const pid_t child : children)
        {
            kill(child, SIGKILL);
        }
        waitpid(-1, nullptr, 0);
    }
}

} // namespace bmc_sim
