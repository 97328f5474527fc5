#include "keyring.hpp"

#include "failure.hpp"
#include "places.hpp"
#include "process.hpp"

#include <sstream>

namespace bmc_sim
{
namespace
{

constexpr std::string_view statusPrefix = "[GNUPG:] ";
constexpr std::string_view importedStatus = "IMPORT_OK";
constexpr auto ultimateTrust = ":6:\n";

/** The first line that gpg wrote for people, not for programs. */
std::string complaint(const std::string& output)
{
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);)
    {
        if (!line.starts_with(statusPrefix))
        {
            return line;
        }
    }
    return "gpg failed";
}

/** Gives what gpg wrote; a failure is told of `subject`. */
std::string runGpg(const Arguments& arguments, std::string_view input,
                   const std::filesystem::path& subject)
{
    // Public keys need no agent, and one would linger.
    Arguments all{"gpg",         "--homedir", places::keyringHome,
                  "--batch",     "--no-tty",  "--quiet",
                  "--status-fd", "1",         "--no-autostart"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    const Outcome outcome = runTool(all, input);
    if (outcome.status != 0)
    {
        throw Failure(subject.string() + ": " + complaint(outcome.output));
    }
    return outcome.output;
}

/** Ownertrust lines for the keys that an import reported. */
std::string trustOf(const std::string& output)
{
    std::string trust;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);)
    {
        if (!line.starts_with(statusPrefix))
        {
            continue;
        }
        std::istringstream fields(line.substr(statusPrefix.size()));
        std::string status;
        std::string reason;
        std::string fingerprint;
        if (fields >> status >> reason >> fingerprint &&
            status == importedStatus)
        {
            trust += fingerprint + ultimateTrust;
        }
    }
    return trust;
}

} // namespace

void importKeys(const std::vector<KeyFile>& files)
{
    std::string trust;
    for (const KeyFile& keys : files)
    {
        trust += trustOf(runGpg({"--import", "--", keys.file}, {}, keys.name));
    }
    if (trust.empty())
    {
        return;
    }
    runGpg({"--import-ownertrust"}, trust, places::keyringHome);
    // Now, so that whoever verifies later finds a home that is settled.
    runGpg({"--check-trustdb"}, {}, places::keyringHome);
}

} // namespace bmc_sim
