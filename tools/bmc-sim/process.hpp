#pragma once

#include "handles.hpp"

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace bmc_sim
{

using Arguments = std::vector<std::string>;

struct Program
{
    Arguments arguments;
    /** Descriptors to use for the standard streams; -1 keeps bmc-sim's. */
    int input = -1;
    int output = -1;
    int error = -1;
    /** Further descriptors that the program is to find open. */
    std::vector<int> kept{};
    /** Whether this is the user's COMMAND, not a tool of bmc-sim's. */
    bool isCommand = false;
    /** Whether it is killed when bmc-sim is. */
    bool isBound = false;
};

struct Pipe
{
    FileDescriptor reader;
    FileDescriptor writer;
};

/** How a tool ended, and all that it wrote. */
struct Outcome
{
    int status;
    std::string output;
};

Pipe makePipe();

/** An anonymous file, positioned at its start. */
FileDescriptor makeBuffer(std::string_view content = {});

std::string readAll(const FileDescriptor& file);

/** What was written to a buffer up to now. */
std::string bufferContent(const FileDescriptor& buffer);

std::string firstLine(const std::string& text);

/** Takes the signals that end a program (INT, TERM, HUP, QUIT) and CHLD out
 *  of delivery: from here on they are waited for. COMMAND gets them back. */
void holdSignals();

/** A held signal that asks to end and is due, if there is one. */
std::optional<int> takeEndSignal();

/** fork(); a bound child does not outlive its parent. */
pid_t forkProcess(bool isBound);

/** Starts a program. A failure to execute it is thrown as a Failure; its
 *  status is 126 or 127 for COMMAND. */
pid_t spawn(const Program& program);

/** Runs a tool to its end, quietly. */
Outcome runTool(const Arguments& arguments, std::string_view input = {});

/** Waits for `child`, reaping whatever else ends, and hands the signals that
 *  did not reach it by themselves to `forward`. Gives the exit status. */
int supervise(pid_t child, const std::function<void(int)>& forward);

/** Sends a signal to a process and its descendants. */
void signalTree(pid_t root, int signal);

/** Kills every descendant; the caller has to be a child subreaper. */
void killDescendants();

} // namespace bmc_sim
