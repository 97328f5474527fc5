#include "sandbox.hpp"

#include "failure.hpp"
#include "places.hpp"

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <set>

namespace bmc_sim
{
namespace
{

namespace fs = std::filesystem;

constexpr auto workDirectory = "/run/bmc-sim";

/** Trees of the host that the sandbox does not show. */
constexpr std::array hiddenTrees{"/tmp", "/run", "/dev"};

/** What a directory of the host must not be mounted over. */
constexpr std::array keptPlaces{
    places::keyringHome,
    places::slotDirectory,
    places::updateDirectory,
    places::temporaryDirectory,
    "/run/velmora/Zarnholt",
    "/run/obmcupdate",
    "/run/bmc-sim",
    "/dev",
    "/proc",
};

bool isWithin(const fs::path& path, const fs::path& tree)
{
    return std::ranges::mismatch(tree, path).in1 == tree.end();
}

bool isHidden(const fs::path& path)
{
    return std::ranges::any_of(hiddenTrees, [&path](const char* tree)
                               { return isWithin(path, tree); });
}

bool hidesPlace(const fs::path& directory)
{
    return std::ranges::any_of(keptPlaces, [&directory](const char* place)
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

/** Shows the entries of a directory of the host, without `left`. Its mount
 *  points are made in a fresh file system, none on the host. */
void composeDirectory(Arguments& to, const fs::path& directory,
                      const std::set<fs::path>& left)
{
    for (const auto& entry : fs::directory_iterator(directory))
    {
        const fs::path& path = entry.path();
        if (left.contains(path))
        {
            continue;
        }
        // A link into a hidden tree is replaced by what it stands for.
        if (entry.is_symlink() && !isHidden(resolved(path)))
        {
            append(to, {"--symlink", fs::read_symlink(path), path});
        }
        else
        {
            append(to, {"--ro-bind-try", path, path});
        }
    }
}

void composeRoot(Arguments& to)
{
    composeDirectory(to, "/",
                     {"/dev", "/etc", "/proc", "/run", "/tmp", "/var"});
    append(to, {"--tmpfs", "/etc"});
    composeDirectory(to, "/etc", {"/etc/gpg"});
    append(to, {"--tmpfs", "/var"});
    composeDirectory(to, "/var", {"/var/run"});
    append(to, {"--symlink", "../run", "/var/run"});
}

void addFreshPlaces(Arguments& to)
{
    append(to, {"--dir", fs::path(places::keyringHome).parent_path()});
    append(to, {"--perms", "0700", "--tmpfs", places::keyringHome});
    append(to, {"--perms", "1777", "--tmpfs", places::temporaryDirectory});
    append(to, {"--perms", "1777", "--tmpfs", "/dev/shm"});
    append(to, {"--tmpfs", "/run"});
    append(to, {"--dir", places::slotDirectory});
    append(to, {"--dir", places::updateDirectory});
    append(to, {"--dir", workDirectory});
}

/** Directories and files of the host that are shown where they lie. */
class ShownPaths
{
  public:
    void show(const std::string& bind, const fs::path& path)
    {
        const fs::path own = resolved(path);
        mountAt(mounts, bind, own, own);
        if (path != own && isHidden(path))
        {
            mountAt(aliases, bind, own, path);
        }
    }

    /** Paths that lead over links come first: a tree that is shown with
     *  these links in it covers them. */
    [[nodiscard]] Arguments arguments() const
    {
        Arguments all = aliases;
        append(all, mounts);
        return all;
    }

  private:
    static void mountAt(Arguments& to, const std::string& bind,
                        const fs::path& source, const fs::path& target)
    {
        if (isHidden(target))
        {
            // Else bubblewrap would make the way there for its user alone.
            append(to, {"--dir", target.parent_path()});
        }
        append(to, {bind, source, target});
    }

    Arguments aliases;
    Arguments mounts;
};

/** Shows a program from a hidden tree, with the directory it lies in. */
void showProgram(ShownPaths& to, const fs::path& program)
{
    for (const fs::path& path : std::set{program, resolved(program)})
    {
        if (!fs::exists(path) || !isHidden(path))
        {
            continue;
        }
        const fs::path directory = path.parent_path();
        to.show("--ro-bind", hidesPlace(directory) ? path : directory);
    }
}

void showWritable(ShownPaths& to, const fs::path& directory)
{
    const fs::path path = fromRoot(directory);
    if (!fs::is_directory(path))
    {
        throw Failure("--bind " + directory.string() + ": not a directory");
    }
    if (hidesPlace(path) || hidesPlace(resolved(path)))
    {
        throw Failure("--bind " + directory.string() +
                          ": holds a place that the sandbox makes anew",
                      exitUsage);
    }
    to.show("--bind", path);
}

ShownPaths shownPaths(const Options& options, const fs::path& ownProgram,
                      const fs::path& current)
{
    ShownPaths shown;
    showProgram(shown, ownProgram);
    const fs::path command = options.command.front();
    if (command.has_parent_path())
    {
        showProgram(shown, fromRoot(command));
    }
    // What can be written comes last, to lie over what can only be read.
    for (const fs::path& directory : options.writableDirectories)
    {
        showWritable(shown, directory);
    }
    if (!hidesPlace(current))
    {
        shown.show("--bind", current);
    }
    return shown;
}

Arguments fileSystem(const Options& options, const fs::path& ownProgram)
{
    const fs::path current = fs::current_path();
    Arguments all;
    composeRoot(all);
    addFreshPlaces(all);
    append(all, shownPaths(options, ownProgram, current).arguments());
    append(all, {"--chdir", current, "--remount-ro", "/etc", "--remount-ro",
                 "/var", "--remount-ro", "/"});
    return all;
}

/** Files from the command line on their way into the work directory. */
class InputFiles
{
  public:
    void add(const fs::path& name, const std::string& copy)
    {
        FileDescriptor file(open(name.c_str(), O_RDONLY | O_CLOEXEC));
        struct stat status{};
        if (file.get() < 0 || fstat(file.get(), &status) < 0)
        {
            throw systemFailure(name);
        }
        if (S_ISDIR(status.st_mode))
        {
            throw Failure(name.string() + ": is a directory");
        }
        append(arguments, {"--file", std::to_string(file.get()),
                           fs::path(workDirectory) / copy});
        files.push_back(std::move(file));
    }

    [[nodiscard]] std::vector<int> descriptors() const
    {
        std::vector<int> all;
        std::ranges::transform(files, std::back_inserter(all),
                               &FileDescriptor::get);
        return all;
    }

    Arguments arguments;

  private:
    std::vector<FileDescriptor> files;
};

InputFiles openInputs(const Options& options)
{
    InputFiles inputs;
    for (std::size_t index = 0; index < options.keyrings.size(); ++index)
    {
        inputs.add(options.keyrings[index], keyringCopy(index));
    }
    if (options.rootCa)
    {
        inputs.add(*options.rootCa, rootCaCopy);
    }
    if (options.signerKey)
    {
        inputs.add(*options.signerKey, signerKeyCopy);
    }
    return inputs;
}

/** Process 1 of the sandbox by its number out here, told in the first line
 *  of bubblewrap's report; none when there is no sandbox. */
std::optional<pid_t> readSandboxPid(const FileDescriptor& report)
{
    std::string line;
    char character = 0;
    while (read(report.get(), &character, 1) == 1 && character != '\n')
    {
        line.push_back(character);
    }
    const auto status = nlohmann::json::parse(line, nullptr, false);
    const auto pid = status.find("child-pid");
    return pid == status.end() ? std::nullopt
                               : std::optional(pid->get<pid_t>());
}

int superviseSandbox(pid_t bubblewrap, const FileDescriptor& report,
                     const FileDescriptor& complaints)
{
    const auto sandbox = readSandboxPid(report);
    const auto forward = [sandbox](int signal)
    {
        if (sandbox)
        {
            kill(*sandbox, signal);
        }
    };
    // What came before the sandbox existed did not reach it by any way.
    while (const auto signal = takeEndSignal())
    {
        forward(*signal);
    }
    const int status = supervise(bubblewrap, forward);
    // Bubblewrap reports an exit code of what it ran, not of its own.
    if (readAll(report).find("exit-code") == std::string::npos)
    {
        throw Failure(firstLine(bufferContent(complaints)));
    }
    return status;
}

} // namespace

SandboxSupport probeSandbox()
{
    const Arguments common{"--unshare-pid", "--die-with-parent", "--dev",
                           "/dev"};
    // A container may forbid a new /proc, or take from root what it would
    // get back in a user namespace.
    const std::array<Arguments, 4> variants{{
        {"--proc", "/proc"},
        {"--proc", "/proc", "--unshare-user"},
        {"--bind", "/proc", "/proc"},
        {"--bind", "/proc", "/proc", "--unshare-user"},
    }};
    std::string complaint;
    for (const Arguments& variant : variants)
    {
        Arguments support = common;
        append(support, variant);
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

int runInSandbox(const Options& options, const Arguments& arguments,
                 const Arguments& support)
{
    const fs::path ownProgram = fs::read_symlink("/proc/self/exe");
    const InputFiles inputs = openInputs(options);
    const FileDescriptor errorStream(
        fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    const FileDescriptor complaints = makeBuffer();
    const Pipe lifeline = makePipe();
    Pipe report = makePipe();
    // Opened both ways: else bubblewrap, reporting to a bmc-sim that has just
    // been killed, would die of it and leave a half-made sandbox waiting.
    report.writer = FileDescriptor(
        open((fs::path("/proc/self/fd") / std::to_string(report.writer.get()))
                 .c_str(),
             O_RDWR | O_CLOEXEC));

    Program bubblewrap{.arguments = {"bwrap", "--as-pid-1"},
                       .error = complaints.get(),
                       .kept = inputs.descriptors()};
    bubblewrap.kept.insert(
        bubblewrap.kept.end(),
        {errorStream.get(), report.writer.get(), lifeline.reader.get()});
    append(bubblewrap.arguments, support);
    append(bubblewrap.arguments, fileSystem(options, ownProgram));
    append(bubblewrap.arguments, inputs.arguments);
    append(bubblewrap.arguments,
           {"--json-status-fd", std::to_string(report.writer.get())});
    append(bubblewrap.arguments,
           {ownProgram, "--inside", std::to_string(errorStream.get()),
            std::to_string(lifeline.reader.get())});
    append(bubblewrap.arguments, arguments);

    holdSignals();
    const pid_t child = spawn(bubblewrap);
    report.writer.reset();
    return superviseSandbox(child, report.reader, complaints);
}

void enterSandbox(const std::vector<int>& insideDescriptors)
{
    const FileDescriptor errorStream(insideDescriptors.at(0));
    const FileDescriptor lifeline(insideDescriptors.at(1));
    dup2(errorStream.get(), STDERR_FILENO);
    // Bubblewrap ties this process to its own life only when the sandbox is
    // set up: an end of the bmc-sim outside before that went unnoticed.
    pollfd watched{lifeline.get(), 0, 0};
    if (poll(&watched, 1, 0) != 0)
    {
        _exit(exitFailure);
    }
}

Site sandboxSite()
{
    return {.workDirectory = workDirectory, .hasCopies = true};
}

} // namespace bmc_sim
