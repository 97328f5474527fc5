#pragma once

#include "common/handles.hpp"

#include <sys/types.h>
#include <systemd/sd-event.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace bmc_sim
{

using tools::FileDescriptor;
using EventLoop = tools::Handle<sd_event, sd_event_unref>;
using Arguments = std::vector<std::string>;

struct Program
{
    Arguments arguments;
    /** File descriptors to use for the standard streams; -1 keeps bmc-sim's. */
    int input = -1;
    int output = -1;
    int error = -1;
    /** Further file descriptors that the program is to find open. */
    std::vector<int> kept;
    /** Whether this is the user's COMMAND, not a tool of bmc-sim's. */
    bool isCommand = false;
    /** Whether it is killed when bmc-sim is. */
    bool isBound = true;
};

struct Pipe
{
    FileDescriptor reader;
    FileDescriptor writer;
};

/** How a tool ended, and what it wrote. */
struct Outcome
{
    int status;
    std::string output;
};

/** @return the result of a function of libsystemd
 *  @throws Error when it is negative */
int check(int result, const char* step);

EventLoop makeLoop();

Pipe makePipe();

/** What was written to a file in memory up to now. */
std::string contentOf(const FileDescriptor& file);

std::string firstLine(const std::string& text);

/** Takes the signals that end a program and SIGCHLD out of delivery: from here
 *  on they are waited for. COMMAND gets them back. */
void holdSignals();

/** A signal that asks to end and is due, if there is one.
 *
 *  @param lifeline as for supervise() */
std::optional<int> takeEndSignal(int lifeline = -1);

/** Starts a program.
 *
 *  @throws Failure when it cannot be executed, with status 126 or 127 for
 *          COMMAND */
pid_t spawn(const Program& program);

/** Runs a tool to its end, quietly. */
Outcome runTool(const Arguments& arguments, std::string_view input = {});

/** Runs @p loop until @p child ends, and reaps whatever else ends. Signals that
 *  the child did not get from the terminal go to @p forward.
 *
 *  @param lifeline a pipe from another bmc-sim, or -1. It brings the numbers of
 *         signals. When it closes, this process ends.
 *  @return the exit status */
int supervise(sd_event* loop, pid_t child, int lifeline,
              const std::function<void(int)>& forward);

/** Sends a signal to a process and its descendants. */
void signalTree(pid_t root, int signal);

/** Kills every descendant; the caller has to be a child subreaper. */
void killDescendants();

} // namespace bmc_sim
