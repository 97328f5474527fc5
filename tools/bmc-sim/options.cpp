#include "options.hpp"

#include "failure.hpp"
#include "library_version.hpp"
#include "purposes.hpp"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <iostream>

namespace bmc_sim
{
namespace
{

constexpr auto usage =
    "Usage: bmc-sim [OPTIONS] -- COMMAND [ARGS...]\n"
    "\n"
    "Runs COMMAND on a simulated BMC: in a sandbox with fresh directories at "
    "the\n"
    "library's places, a private system bus (DBUS_SYSTEM_BUS_ADDRESS names "
    "it) and\n"
    "the services that the library asks. Of the host's files, COMMAND can "
    "write\n"
    "only to the current directory's tree and the directories given with "
    "--bind.\n"
    "\n";

constexpr auto exitStatuses =
    "Exit status:\n"
    "  that of COMMAND, or 128 + N when signal N ended it; else\n"
    "  2    wrong usage\n"
    "  125  bmc-sim itself failed; so also where namespaces are forbidden "
    "and the\n"
    "       user is not root, or a place of the library is in use on the "
    "host\n"
    "  126  COMMAND cannot be executed\n"
    "  127  COMMAND was not found\n"
    "\n"
    "Where the kernel forbids new namespaces, root (and only root) works in\n"
    "place: the library's places are made on the host and removed "
    "afterwards.\n";

class HelpFormatter : public CLI::Formatter
{
  public:
    std::string make_usage(const CLI::App*, std::string) const override
    {
        return usage;
    }
};

/** The options whose text is turned into something else. */
struct RawOptions
{
    std::string systemId = "0A1B";
    std::vector<std::string> purposes;
    std::vector<std::string> absentServices;
    std::vector<std::string> servedServices;
};

template <typename Value>
void addRepeatable(CLI::App& app, const std::string& name,
                   std::vector<Value>& values, const std::string& valueName,
                   const std::string& description)
{
    app.add_option(name, values, description + " (repeatable)")
        ->type_name(valueName)
        ->allow_extra_args(false);
}

void declareOptions(CLI::App& app, Options& options, RawOptions& raw)
{
    app.set_version_flag("--version",
                         std::string("bmc-sim " VELMORA_VERSION ", ") +
                             libraryVersion);
    app.add_option("--system-id", raw.systemId,
                   "System identifier, 16 bits in hexadecimal")
        ->type_name("HEX")
        ->capture_default_str();
    addRepeatable(app, "--keyring", options.keyrings, "FILE",
                  "Exported OpenPGP public keys to trust");
    app.add_option("--root-ca", options.rootCa, "Secure-boot root CA, in PEM")
        ->type_name("FILE");
    app.add_option("--signer-key", options.signerKey,
                   "Key of the image signer in PEM: public key, private key "
                   "or certificate")
        ->type_name("FILE");
    addRepeatable(app, "--purpose", raw.purposes, "ID=NAME",
                  "Version purpose of the component ID, such as BIOS");
    app.add_option("--without", raw.absentServices,
                   "Leave a service out: platform, security or inventory "
                   "(repeatable)")
        ->type_name("SERVICE")
        ->allow_extra_args(false)
        ->check(CLI::IsMember(
            {platformService, securityService, inventoryService}));
    app.add_option("--serve", raw.servedServices,
                   "Run services (platform, security, inventory) on the "
                   "system bus that is there, without sandbox and COMMAND")
        ->type_name("SERVICE...")
        ->excludes("--without")
        ->check(CLI::IsMember(
            {platformService, securityService, inventoryService}));
    addRepeatable(app, "--bind", options.writableDirectories, "DIR",
                  "Directory of the host that COMMAND may write to");
    app.add_flag("--verbose", options.verbose,
                 "Log each request to a service, a line on standard error");
    app.add_flag("--in-place", options.inPlace,
                 "Work in place, as in a container that forbids namespaces; "
                 "root only");
    app.add_option("--inside", options.insideDescriptors)
        ->expected(2)
        ->group("");
}

std::array<std::uint8_t, 2> parseSystemId(const std::string& text)
{
    constexpr std::size_t mostDigits = 4;
    std::uint16_t value = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value, 16);
    if (result.ec != std::errc{} || result.ptr != end ||
        text.size() > mostDigits)
    {
        throw Failure("--system-id: not 16 bits in hexadecimal: " + text,
                      exitUsage);
    }
    return {static_cast<std::uint8_t>(value & 0xff),
            static_cast<std::uint8_t>(value >> 8)};
}

std::map<std::string, std::string>
    parsePurposes(const std::vector<std::string>& texts)
{
    std::map<std::string, std::string> purposes;
    for (const std::string& text : texts)
    {
        const auto equals = text.rfind('=');
        if (equals == std::string::npos)
        {
            throw Failure("--purpose: not ID=NAME: " + text, exitUsage);
        }
        const auto purpose = versionPurposes.complete(text.substr(equals + 1));
        if (!purpose)
        {
            throw Failure("--purpose: no such version purpose: " + text,
                          exitUsage);
        }
        purposes.insert_or_assign(text.substr(0, equals), *purpose);
    }
    return purposes;
}

void parseWith(CLI::App& app, std::vector<std::string> arguments)
{
    // CLI11 takes its arguments from the back.
    std::ranges::reverse(arguments);
    try
    {
        app.parse(std::move(arguments));
    }
    catch (const CLI::Success& success)
    {
        std::exit(app.exit(success));
    }
    catch (const CLI::ParseError& error)
    {
        throw Failure(error.what(), exitUsage);
    }
}

} // namespace

Options parseOptions(const std::vector<std::string>& arguments)
{
    Options options;
    RawOptions raw;
    CLI::App app;
    app.formatter(std::make_shared<HelpFormatter>());
    app.footer(exitStatuses);
    declareOptions(app, options, raw);

    // What follows the separator is COMMAND's, whatever it looks like.
    const auto separator = std::ranges::find(arguments, "--");
    parseWith(app, {arguments.begin(), separator});
    options.serves = !raw.servedServices.empty();
    if (options.serves)
    {
        for (const char* name :
             {platformService, securityService, inventoryService})
        {
            if (std::ranges::find(raw.servedServices, name) ==
                raw.servedServices.end())
            {
                raw.absentServices.emplace_back(name);
            }
        }
    }
    else if (arguments.end() - separator < 2)
    {
        throw Failure("no COMMAND: it stands behind --", exitUsage);
    }
    if (!options.serves)
    {
        options.command.assign(separator + 1, arguments.end());
    }
    options.systemId = parseSystemId(raw.systemId);
    options.purposes = parsePurposes(raw.purposes);
    options.absentServices.insert(raw.absentServices.begin(),
                                  raw.absentServices.end());
    return options;
}

} // namespace bmc_sim
