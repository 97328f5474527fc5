#include "sandbox.hpp"

#include "common/files.hpp"
#include "failure.hpp"
#include "places.hpp"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <iostream>
#include <set>

namespace bmc_sim
{
namespace
{

namespace fs = std::filesystem;

/** Trees of the host that the sandbox does not show. */
constexpr std::array HIDDEN_TREES{"/tmp", "/run", "/dev"};

/** What a directory of the host must not be mounted over. */
constexpr std::array KEPT_PLACES{
    places::KEYRING_HOME,
    places::SLOT_DIRECTORY,
    places::UPDATE_DIRECTORY,
    places::TEMPORARY_DIRECTORY,
    "/var/run/velmora/Zarnholt",
    "/var/run/obmcupdate",
    SANDBOX_DIRECTORY,
    "/dev",
    "/proc",
};

/** What root's COMMAND may still do: work on files as any owner, and act as
 *  another user. Everything else can undo the sandbox or change the host:
 *  mounting, making devices, opening files by handle, the network. */
constexpr std::array ROOT_CAPABILITIES{
    "CAP_CHOWN", "CAP_DAC_OVERRIDE", "CAP_FOWNER", "CAP_FSETID",
    "CAP_KILL",  "CAP_SETGID",       "CAP_SETUID"};

bool isWithin(const fs::path& path, const fs::path& tree)
{
    return std::ranges::mismatch(tree, path).in1 == tree.end();
}

bool isHidden(const fs::path& path)
{
    return std::ranges::any_of(HIDDEN_TREES, [&path](const char* tree)
                               { return isWithin(path, tree); });
}

bool hidesPlace(const fs::path& directory)
{
    return std::ranges::any_of(KEPT_PLACES, [&directory](const char* place)
                               { return isWithin(place, directory); });
}

fs::path resolved(const fs::path& path)
{
    std::error_code error;
    return fs::canonical(path, error);
}

fs::path fromRoot(const fs::path& path)
{
    const fs::path plain = fs::absolute(path).lexically_normal();
    return plain.has_filename() ? plain : plain.parent_path();
}

void append(Arguments& to, const Arguments& more)
{
    to.insert(to.end(), more.begin(), more.end());
}

/** The host's files, and over them what the library is to find fresh. /etc has
 *  to be put together anew, because nothing can be mounted on a directory that
 *  the host does not have. */
Arguments freshPlaces()
{
    Arguments all{"--ro-bind", "/", "/", "--tmpfs", "/etc"};
    for (const auto& entry : fs::directory_iterator("/etc"))
    {
        const fs::path& path = entry.path();
        // A link into a hidden tree is replaced by what it stands for.
        if (entry.is_symlink() && !isHidden(resolved(path)))
        {
            append(all, {"--symlink", fs::read_symlink(path), path});
        }
        else if (path != "/etc/gpg")
        {
            append(all, {"--ro-bind-try", path, path});
        }
    }
    append(all, {"--dir",        fs::path(places::KEYRING_HOME).parent_path(),
                 "--perms",      "0700",
                 "--tmpfs",      places::KEYRING_HOME,
                 "--remount-ro", "/etc",
                 "--perms",      "1777",
                 "--tmpfs",      places::TEMPORARY_DIRECTORY,
                 "--perms",      "1777",
                 "--tmpfs",      "/dev/shm",
                 "--tmpfs",      "/run",
                 "--dir",        places::SLOT_DIRECTORY,
                 "--dir",        places::UPDATE_DIRECTORY,
                 "--dir",        SANDBOX_DIRECTORY});
    return all;
}

/** Shows a directory or a file of the host where it lies. */
void show(Arguments& to, const char* bind, const fs::path& path)
{
    const fs::path own = resolved(path);
    const auto mountAt = [&](const fs::path& target, bool isFirst)
    {
        Arguments mount;
        if (isHidden(target))
        {
            // Otherwise bubblewrap makes the parent directories accessible to
            // its own user only.
            mount = {"--dir", target.parent_path()};
        }
        append(mount, {bind, own, target});
        to.insert(isFirst ? to.begin() : to.end(), mount.begin(), mount.end());
    };
    mountAt(own, false);
    // A path with links in it is mounted first, because a later mount may
    // bring those links with it.
    if (path != own && isHidden(path))
    {
        mountAt(path, true);
    }
}

/** Shows a program from a hidden tree, with the directory it lies in. */
void showProgram(Arguments& to, const fs::path& program)
{
    for (const fs::path& path : std::set{program, resolved(program)})
    {
        if (fs::exists(path) && isHidden(path))
        {
            const fs::path directory = path.parent_path();
            show(to, "--ro-bind", hidesPlace(directory) ? path : directory);
        }
    }
}

Arguments shownPaths(const Options& options, const fs::path& ownProgram)
{
    Arguments shown;
    showProgram(shown, ownProgram);
    const fs::path command = options.command.front();
    if (command.has_parent_path())
    {
        showProgram(shown, fromRoot(command));
    }
    // What can be written comes last, to lie over what can only be read.
    for (const fs::path& directory : options.writableDirectories)
    {
        const fs::path path = fromRoot(directory);
        if (!fs::is_directory(path))
        {
            throw Error("--bind " + directory.string(), "not a directory");
        }
        if (hidesPlace(path) || hidesPlace(resolved(path)))
        {
            throw Failure("--bind " + directory.string(),
                          "holds a place that the sandbox makes anew",
                          WRONG_USAGE);
        }
        show(shown, "--bind", path);
    }
    const fs::path current = fs::current_path();
    if (!hidesPlace(current))
    {
        show(shown, "--bind", current);
    }
    append(shown, {"--chdir", current});
    return shown;
}

Arguments capabilities()
{
    Arguments all{"--cap-drop", "ALL"};
    for (const char* const capability : ROOT_CAPABILITIES)
    {
        append(all, {"--cap-add", capability});
    }
    return geteuid() == 0 ? all : Arguments();
}

/** Has the files of the command line copied into the sandbox. */
std::vector<FileDescriptor> addInputs(Options& options, Program& bubblewrap)
{
    std::vector<FileDescriptor> files;
    for (const InputFile* const input : inputFiles(options))
    {
        FileDescriptor file = tools::memoryFile(tools::readFile(input->name));
        append(bubblewrap.arguments, {"--file", std::to_string(file.get()),
                                      sandboxCopy(files.size())});
        bubblewrap.kept.push_back(file.get());
        files.push_back(std::move(file));
    }
    return files;
}

} // namespace

SandboxSupport probeSandbox()
{
    // A container may forbid a new /proc, or take from root what it would
    // get back in a user namespace. The kernel's settings in /proc/sys ask for
    // root alone, so they are read-only.
    const std::array<Arguments, 4> variants{{
        {"--proc", "/proc", "--ro-bind", "/proc/sys", "/proc/sys"},
        {"--proc", "/proc", "--unshare-user", "--ro-bind", "/proc/sys",
         "/proc/sys"},
        {"--ro-bind", "/proc", "/proc"},
        {"--ro-bind", "/proc", "/proc", "--unshare-user"},
    }};
    std::string complaint;
    for (const Arguments& variant : variants)
    {
        Arguments support{"--unshare-pid", "--dev", "/dev"};
        append(support, variant);
        append(support, capabilities());
        Arguments trial{"bwrap", "--ro-bind", "/", "/"};
        append(trial, support);
        append(trial, {"true"});
        const Outcome outcome = runTool(trial);
        if (outcome.status == 0)
        {
            return {true, support, {}};
        }
        complaint = firstLine(outcome.output);
    }
    return {false, {}, complaint};
}

int runInSandbox(Options& options, const Arguments& arguments,
                 const Arguments& support)
{
    const fs::path ownProgram = fs::read_symlink("/proc/self/exe");
    const FileDescriptor errorStream(
        fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    const FileDescriptor complaints = tools::memoryFile();
    const Pipe lifeline = makePipe();

    // It is not bound: killed halfway, it would leave a half-made sandbox
    // waiting. The bmc-sim within ends when the lifeline does.
    Program bubblewrap{.arguments = {"bwrap", "--as-pid-1"},
                       .error = complaints.get(),
                       .kept = {errorStream.get(), lifeline.reader.get()},
                       .isBound = false};
    append(bubblewrap.arguments, freshPlaces());
    append(bubblewrap.arguments, support);
    append(bubblewrap.arguments, shownPaths(options, ownProgram));
    const auto inputs = addInputs(options, bubblewrap);
    append(bubblewrap.arguments,
           {ownProgram, "--inside", std::to_string(errorStream.get()),
            std::to_string(lifeline.reader.get())});
    append(bubblewrap.arguments, arguments);

    holdSignals();
    const pid_t child = spawn(bubblewrap);
    const auto forward = [&lifeline](int signal)
    {
        [[maybe_unused]] const auto written =
            write(lifeline.writer.get(), &signal, sizeof(signal));
    };
    // Signals that came before the sandbox existed are passed on now.
    while (const auto signal = takeEndSignal())
    {
        forward(*signal);
    }
    const int status = supervise(makeLoop().get(), child, -1, forward);
    if (const std::string text = contentOf(complaints); !text.empty())
    {
        throw Error("sandbox", firstLine(text));
    }
    if (status == NOT_FOUND)
    {
        std::cerr << "bmc-sim: COMMAND, or what it starts, was not found; of "
                     "/tmp, /run and /dev the sandbox shows only what --bind "
                     "names\n";
    }
    return status;
}

Site enterSandbox(const std::vector<int>& insideFiles)
{
    holdSignals();
    // The sandbox was made, so bubblewrap's messages are dropped.
    [[maybe_unused]] const int emptied = ftruncate(STDERR_FILENO, 0);
    const FileDescriptor errorStream(insideFiles.at(0));
    dup2(errorStream.get(), STDERR_FILENO);
    const int lifeline = insideFiles.at(1);
    fcntl(lifeline, F_SETFD, FD_CLOEXEC);
    return {.workDirectory = SANDBOX_DIRECTORY, .lifeline = lifeline};
}

} // namespace bmc_sim
