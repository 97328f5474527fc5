#include "files.hpp"
#include "library_log.hpp"
#include "models.hpp"
#include "package.hpp"

#include <nlohmann/json.hpp>
#include <sys/resource.h>
#include <sys/stat.h>
#include <velmora.hpp>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>

/** @file One round of an update daemon: takes a package, has it judged, and
 *  publishes what it holds.
 *
 *  $STATE_DIRECTORY, which the service manager makes for the daemon alone, has
 *
 *    incoming/     the package, in a copy that nobody else can change
 *    unpacked/     what is unpacked from it; both are empty between updates
 *    models/       the version that was last accepted, a file for each model
 *    result.json   how the last update ended, for other services to show; not
 *                  there while one is under way, after one that was killed, or
 *                  where it could not be kept
 *    allow-older   where root has made it: one older version is taken, and the
 *                  file is removed
 *
 *  If it is killed, its extractor goes on writing. The service manager must end
 *  that too before the next run, as systemd does.
 *
 *  It is compiled with
 *
 *    c++ -std=c++20 main.cpp \
 *        $(pkg-config --cflags --libs velmora libzip nlohmann_json) */

namespace
{

using namespace update_daemon;

enum ExitStatus
{
    ACCEPTED = 0,
    REFUSED = 1,
    WRONG_USAGE = 2,
    NOT_CHECKED = 3,
    NOT_PUBLISHED = 4,
    NOT_REMEMBERED = 5,
};

/** The library said no: its log has the reason. */
class LibraryRefusal : public Refusal
{
  public:
    using Refusal::Refusal;
};

/** A service did not answer the library: that says nothing of the package. */
class NoAnswer : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

/** The package was accepted, and not all of that is remembered. */
class NotRemembered : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

/** The package was accepted, and the inventory does not show it. */
class NotPublished : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

/** Without a `Model` the package would be for any system. */
void expectModel(const fs::path& unpacked)
{
    if (ValidateQOR::getStrFromPkgXML((unpacked / "package.xml").string(),
                                      "//Model", "systemID")
            .empty())
    {
        throw Refusal("the descriptor names no Model");
    }
}

/** A descriptor without a `Model` passes exactly when this machine's system is
 *  known: when it is not, that says nothing of a package. */
void expectKnownSystem(const fs::path& directory)
{
    const fs::path descriptor = directory / "any.xml";
    std::ofstream file(descriptor);
    file << "<Package/>\n";
    file.close();
    if (!file)
    {
        throw std::runtime_error("cannot write " + descriptor.string());
    }
    LibraryLog log;
    const bool known =
        ValidateQOR::validateSytemIdFromPkgXML(descriptor.string());
    log.end(!known);
    if (!known)
    {
        throw NoAnswer(
            "nobody could tell this machine's system; the platform service is "
            "com.vorn.bmc.smad");
    }
}

void validate(const fs::path& copy, const fs::path& unpacked)
try
{
    const Members members = membersOf(copy);
    expectRoom(members, unpacked);
    if (!ValidateQOR::unZip(copy.string(), unpacked.string()))
    {
        throw LibraryRefusal("it cannot be unpacked");
    }
    expectJust(members, unpacked);
    if (!ValidateQOR::validateExtractedQOR(unpacked.string()))
    {
        throw LibraryRefusal("it is not for this system, not signed by a "
                             "trusted key, or not what was signed");
    }
    expectModel(unpacked);
}
catch (const std::logic_error&)
{
    // A hostile descriptor makes the conversion of a system's identifier throw.
    throw Refusal("the descriptor lists a system that is no 16-bit number");
}

/** Bounds every file that this process and the extractor write. */
void limitFiles()
{
    struct rlimit limit = {};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, MAX_SIZE);
    setrlimit(RLIMIT_FSIZE, &limit);
    // A write beyond fails then; the signal would end the process, and an
    // extractor that a signal ends counts as successful.
    std::signal(SIGXFSZ, SIG_IGN);
}

/** What a package says of itself, once it is trusted. */
struct Package
{
    std::string model;
    std::string version;
    ValidateQOR::VersionPurpose purpose;
};

Package describe(const std::string& directory)
{
    Package package{.model = ValidateQOR::getImageModel(directory),
                    .version = ValidateQOR::getImageVersion(directory),
                    .purpose = ValidateQOR::VersionPurpose::Unknown};
    if (package.model.empty() || package.version.empty())
    {
        throw Refusal("the descriptor names no model or no version");
    }
    package.purpose = ValidateQOR::getImagePurpose(directory);
    if (package.purpose == ValidateQOR::VersionPurpose::Unknown)
    {
        throw NoAnswer(
            "nobody could tell what it is for; the inventory manager is "
            "xyz.openbmc_project.Software.Installed.Inventory");
    }
    return package;
}

/** Inventory path of what is published of a package. */
std::string objectOf(const Package& package)
{
    return INVENTORY + encoded(package.model) + '/' + encoded(package.version);
}

/** Publishes the new object first: the one before stays until then.
 *
 *  @param isOwn whether what is there under the path may be this daemon's */
void publish(const Package& package, const std::string& path,
             const std::string& before, bool isOwn)
{
    // The same version once more, and the manager may still have it.
    const bool isThere = isOwn && !ValidateQOR::getInventoryModel(path).empty();
    if (!isThere && ValidateQOR::registerSWInv(
                        path, package.model, package.version, package.purpose,
                        ValidateQOR::ReleaseType::Other) != 1)
    {
        throw std::runtime_error("the inventory manager does not take it");
    }
    // A manager that was started anew does not have it any more.
    if (!before.empty() && path != before &&
        ValidateQOR::deRegisterSWInv(before) != 1)
    {
        std::cerr << "the object of the version before is not there: " << before
                  << '\n';
    }
}

void remember(const Models& models, const Package& package,
              const Installed& installed)
try
{
    models.remember(package.model, installed);
}
catch (const std::exception& e)
{
    throw NotRemembered(e.what());
}

Package update(const fs::path& source, const fs::path& stateDirectory)
{
    const PrivateDirectory incoming(stateDirectory / "incoming");
    const PrivateDirectory unpacked(stateDirectory / "unpacked");
    const fs::path copy = incoming.path() / "package.zip";
    expectKnownSystem(incoming.path());
    takeOver(source, copy);
    validate(copy, unpacked.path());

    // From here on the descriptor is trusted.
    Package package = describe(unpacked.path().string());
    const Models models(stateDirectory);
    Installed installed = models.find(package.model);
    models.expectNotOlder(package.version, installed);
    // Here a real daemon applies the files of unpacked/payload, and waits until
    // they are complete in the flash memory.
    const std::string path = objectOf(package);
    const bool isOwn = path == installed.object || path == installed.next;
    if (!installed.next.empty() && installed.next != path &&
        installed.next != installed.object)
    {
        // A run that was killed may have published it. It is forgotten next.
        ValidateQOR::deRegisterSWInv(installed.next);
    }
    installed.version = package.version;
    installed.next = path;
    remember(models, package, installed);
    installed.next.clear();
    try
    {
        publish(package, path, installed.object, isOwn);
    }
    catch (const std::exception& e)
    {
        // What is there may be somebody else's.
        remember(models, package, installed);
        throw NotPublished(e.what());
    }
    installed.object = path;
    remember(models, package, installed);
    return package;
}

/** How an update ended. */
struct Result
{
    ExitStatus status;
    std::string verdict;
    std::string reason;
    /** What the library's log gives as the cause; empty where nobody knows. */
    nlohmann::json failure;
};

/** The result with what the library's log tells of it. */
Result explained(Result result, LibraryLog& log)
{
    log.end(true);
    result.failure = lastFailure(log.file());
    if (result.status != NOT_CHECKED)
    {
        result.reason = result.failure.value("reason", result.reason);
    }
    if (result.status == REFUSED &&
        result.failure.value("verdict", "") == "failed")
    {
        // A service has gone in the middle, say: the package was not judged.
        result.status = NOT_CHECKED;
        result.verdict = "could not be checked";
    }
    return result;
}

Result judge(const fs::path& package, const fs::path& stateDirectory)
{
    const nlohmann::json none = nlohmann::json::object();
    LibraryLog log;
    try
    {
        const auto [model, version, purpose] = update(package, stateDirectory);
        return {ACCEPTED, "accepted", "model " + model + ", version " + version,
                none};
    }
    catch (const LibraryRefusal& refusal)
    {
        return explained({REFUSED, "refused", refusal.what(), none}, log);
    }
    catch (const Refusal& refusal)
    {
        return {REFUSED, "refused", refusal.what(), none};
    }
    catch (const NotPublished& e)
    {
        return explained(
            {NOT_PUBLISHED, "accepted and not published", e.what(), none}, log);
    }
    catch (const NotRemembered& e)
    {
        return {NOT_REMEMBERED, "accepted and not remembered", e.what(), none};
    }
    catch (const NoAnswer& e)
    {
        return explained({NOT_CHECKED, "could not be checked", e.what(), none},
                         log);
    }
    catch (const std::exception& e)
    {
        return {NOT_CHECKED, "could not be checked", e.what(), none};
    }
}

/** As a string of JSON without its quotes: ASCII, in one line. A package says
 *  what its version is. */
std::string printable(const std::string& text)
{
    const std::string quoted = nlohmann::json(text).dump(
        -1, ' ', true, nlohmann::json::error_handler_t::replace);
    return quoted.substr(1, quoted.size() - 2);
}

/** For other services, result.json; for people, the daemon's last line. */
int run(const fs::path& package, const fs::path& stateDirectory)
{
    const OneAtATime lock(stateDirectory);
    fs::remove(stateDirectory / "result.json");
    Result result = judge(package, stateDirectory);
    try
    {
        replaceFile(stateDirectory / "result.json",
                    {{"verdict", result.verdict},
                     {"reason", result.reason},
                     {"cause", result.failure["cause"]},
                     {"build-id", result.failure["buildId"]},
                     {"build-is-known", result.failure["buildIsKnown"]}});
    }
    catch (const std::exception& e)
    {
        std::cerr << "the result is not kept: " << e.what() << '\n';
    }
    std::cerr << result.verdict << ": " << printable(result.reason) << '\n';
    return result.status;
}

} // namespace

int main(int argc, char** argv)
{
    const char* stateDirectory = std::getenv("STATE_DIRECTORY");
    if (argc != 2 || stateDirectory == nullptr || *stateDirectory != '/')
    {
        std::cerr << "usage: STATE_DIRECTORY=/... update_daemon PACKAGE\n";
        return WRONG_USAGE;
    }
    // An extractor whose end cannot be waited for counts as successful, and a
    // reader of the log that has gone must not end the daemon.
    std::signal(SIGCHLD, SIG_DFL);
    std::signal(SIGPIPE, SIG_IGN);
    umask(077);
    limitFiles();
    try
    {
        return run(argv[1], stateDirectory);
    }
    catch (const std::exception& e)
    {
        std::cerr << "could not be checked: " << e.what() << '\n';
        return NOT_CHECKED;
    }
}
