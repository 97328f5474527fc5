#include "in_place.hpp"

#include "failure.hpp"
#include "places.hpp"
#include "process.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>

namespace bmc_sim
{
namespace
{

namespace fs = std::filesystem;

constexpr auto LOCKED_DIRECTORY = "/etc";
constexpr mode_t PUBLIC_MODE = 0755;
constexpr mode_t PRIVATE_MODE = 0700;

/** A lock that leaves no file behind. */
FileDescriptor lockHost()
{
    FileDescriptor lock(
        open(LOCKED_DIRECTORY, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (lock.get() < 0 || flock(lock.get(), LOCK_EX) < 0)
    {
        throw systemError(LOCKED_DIRECTORY);
    }
    return lock;
}

void refuseUsed(const fs::path& place, bool isUnused)
{
    if (fs::exists(fs::symlink_status(place)) && !isUnused)
    {
        throw Error(place.string(), "in use on this host, not touched");
    }
}

} // namespace

// The object is whole once the delegated constructor is done: the
// destructor cleans up also when the making of the places fails midway.
InPlaceSite::InPlaceSite() : InPlaceSite(lockHost())
{
    makeDirectory(places::TEMPORARY_DIRECTORY);
    for (const fs::path place : places::OWN_DIRECTORIES)
    {
        makeDirectory(place);
    }
    workDirectory_ = std::make_unique<tools::TemporaryDirectory>(
        fs::path(places::TEMPORARY_DIRECTORY) / "bmc-sim-XXXXXX");
    // A COMMAND that gives up root still has to reach the bus.
    chmod(workDirectory_->path().c_str(), PUBLIC_MODE);
}

InPlaceSite::InPlaceSite(FileDescriptor lock) : hostLock_(std::move(lock))
{
    for (const fs::path place : places::OWN_DIRECTORIES)
    {
        refuseUsed(place, fs::is_directory(place) && fs::is_empty(place));
    }
    refuseUsed(places::RELEASE_MARKER, false);
    holdSignals();
    // Daemons that COMMAND leaves behind come to us to be killed.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
}

InPlaceSite::~InPlaceSite()
{
    killDescendants();
    std::error_code error;
    for (const fs::path place : places::OWN_DIRECTORIES)
    {
        for (const auto& entry : fs::directory_iterator(place, error))
        {
            fs::remove_all(entry.path(), error);
        }
    }
    fs::remove(places::RELEASE_MARKER, error);
    workDirectory_.reset();
    for (; !madeDirectories_.empty(); madeDirectories_.pop_back())
    {
        fs::remove(madeDirectories_.back(), error);
    }
}

void InPlaceSite::makeDirectory(const fs::path& directory)
{
    if (fs::is_directory(directory))
    {
        return;
    }
    makeDirectory(directory.parent_path());
    const bool isPrivate = directory == places::KEYRING_HOME;
    if (mkdir(directory.c_str(), isPrivate ? PRIVATE_MODE : PUBLIC_MODE) < 0)
    {
        throw systemError(directory.string());
    }
    madeDirectories_.push_back(directory);
}

} // namespace bmc_sim
