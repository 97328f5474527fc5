#include "in_place.hpp"

#include "failure.hpp"
#include "places.hpp"
#include "process.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <cstdlib>

namespace bmc_sim
{
namespace
{

namespace fs = std::filesystem;

constexpr auto lockedDirectory = "/etc";
constexpr mode_t publicMode = 0755;
constexpr mode_t privateMode = 0700;

/** A lock that leaves no file behind. */
FileDescriptor lockHost()
{
    FileDescriptor lock(
        open(lockedDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (lock.get() < 0 || flock(lock.get(), LOCK_EX) < 0)
    {
        throw systemFailure(lockedDirectory);
    }
    return lock;
}

void refuseUsedPlaces()
{
    for (const fs::path place : places::ownDirectories)
    {
        if (fs::exists(fs::symlink_status(place)) &&
            !(fs::is_directory(place) && fs::is_empty(place)))
        {
            throw Failure(place.string() +
                          ": in use on this host, not touched");
        }
    }
    if (fs::exists(fs::symlink_status(places::releaseMarker)))
    {
        throw Failure(std::string(places::releaseMarker) +
                      ": in use on this host, not touched");
    }
}

void emptyDirectory(const fs::path& directory)
{
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(directory, error))
    {
        fs::remove_all(entry.path(), error);
    }
}

} // namespace

// The object is whole once the delegated constructor is done: the
// destructor cleans up also when the making of the places fails midway.
InPlaceSite::InPlaceSite() : InPlaceSite(lockHost())
{
    makeDirectory(places::temporaryDirectory);
    for (const fs::path place : places::ownDirectories)
    {
        makeDirectory(place);
    }
    std::string pattern =
        fs::path(places::temporaryDirectory) / "bmc-sim-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr)
    {
        throw systemFailure(pattern);
    }
    workDirectory = pattern;
    // A COMMAND that gives up root still has to reach the bus.
    chmod(workDirectory.c_str(), publicMode);
}

InPlaceSite::InPlaceSite(FileDescriptor lock) : hostLock(std::move(lock))
{
    refuseUsedPlaces();
    holdSignals();
    // Daemons that COMMAND leaves behind come to us to be killed.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
}

InPlaceSite::~InPlaceSite()
{
    killDescendants();
    for (const fs::path place : places::ownDirectories)
    {
        emptyDirectory(place);
    }
    std::error_code error;
    fs::remove(places::releaseMarker, error);
    if (!workDirectory.empty())
    {
        fs::remove_all(workDirectory, error);
    }
    while (!madeDirectories.empty())
    {
        fs::remove(madeDirectories.back(), error);
        madeDirectories.pop_back();
    }
}

void InPlaceSite::makeDirectory(const fs::path& directory)
{
    if (fs::is_directory(directory))
    {
        return;
    }
    makeDirectory(directory.parent_path());
    const bool isPrivate = directory == places::keyringHome;
    if (mkdir(directory.c_str(), isPrivate ? privateMode : publicMode) < 0)
    {
        throw systemFailure(directory);
    }
    madeDirectories.push_back(directory);
}

} // namespace bmc_sim
