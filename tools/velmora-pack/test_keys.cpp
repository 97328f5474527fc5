#include "files.hpp"
#include "making.hpp"
#include "openpgp.hpp"

namespace fs = std::filesystem;

namespace pack
{
namespace
{

constexpr auto SCRIPT =
#include "test-keys.inc"
    ;
/** The last file that the script makes. */
constexpr auto LAST_FILE = "fingerprint";

} // namespace

void makeTestKeys(const Options& options)
{
    const fs::path& target = options.output;
    expectNewDirectory(target);
    const Output directory(target);
    const ProgramOutput said =
        runProgram("/bin/sh", {"sh", "-c", SCRIPT, "test-keys.sh",
                               directory.path().parent_path()});
    std::error_code missing;
    if (fs::is_empty(directory.path() / LAST_FILE, missing) || missing)
    {
        throw Error(target.string(), "keys cannot be made" + said.reason);
    }
    directory.renameToTarget();
    report(target, "test keys and certificates, not to be trusted");
}

} // namespace pack
