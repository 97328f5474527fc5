#include "options.hpp"

#include "common/command_line.hpp"
#include "failure.hpp"
#include "library_version.hpp"
#include "purposes.hpp"

#include <algorithm>
#include <cstdlib>

namespace bmc_sim
{
namespace
{

constexpr auto USAGE =
    R"(Usage: bmc-sim [OPTIONS] -- COMMAND [ARGS...]
       bmc-sim --serve SERVICE... [OPTIONS]

Runs COMMAND on a simulated BMC: in a sandbox with fresh directories at the
library's places, a private system bus (DBUS_SYSTEM_BUS_ADDRESS names it) and
the services that the library asks. Of the host's files, COMMAND can write
only to the current directory's tree and the directories given with --bind.

)";

constexpr auto FOOTER =
    R"(Exit status:
  that of COMMAND, or 128 + N when signal N ended it; else
  2    wrong usage
  125  bmc-sim itself failed; so also where namespaces are forbidden and the
       user is not root, or a place of the library is in use on the host
  126  COMMAND cannot be executed
  127  COMMAND was not found

Where the kernel forbids new namespaces, root (and only root) works in
place: the library's places are made on the host and removed afterwards.
)";

const std::set<std::string> SERVICES{PLATFORM, SECURITY, INVENTORY};

class HelpFormatter : public CLI::Formatter
{
  public:
    std::string make_usage(const CLI::App*, std::string) const override
    {
        return USAGE;
    }
};

/** Options as they are given. */
struct Texts
{
    std::string systemId = "0A1B";
    std::vector<std::string> purposes;
    std::set<std::string> absent;
    std::set<std::string> served;
};

std::string checkPurpose(const std::string& text)
{
    const auto equals = text.rfind('=');
    return equals != std::string::npos &&
                   VERSION_PURPOSES.complete(text.substr(equals + 1))
               ? ""
               : "not ID=NAME, or no such version purpose: " + text;
}

void declareOptions(CLI::App& app, Options& options, Texts& texts)
{
    const auto add = [&app](const char* name, auto& value, const char* type,
                            const char* help)
    {
        return app.add_option(name, value, help)
            ->type_name(type)
            ->allow_extra_args(false);
    };
    add("--system-id", texts.systemId, "HEX",
        "System identifier, 16 bits in hexadecimal")
        ->capture_default_str()
        ->transform(CLI::Validator(tools::normaliseSystemId, ""));
    add("--keyring", options.keyrings, "FILE",
        "Exported OpenPGP public keys to trust (repeatable)");
    add("--root-ca", options.rootCa, "FILE", "Secure-boot root CA, in PEM");
    add("--signer-key", options.signerKey, "FILE",
        "Key of the image signer in PEM: public key, private key or "
        "certificate");
    add("--purpose", texts.purposes, "ID=NAME",
        "Version purpose of the component ID, such as BIOS (repeatable)")
        ->check(checkPurpose);
    CLI::Option* const without =
        add("--without", texts.absent, "SERVICE",
            "Leave a service out: platform, security or inventory "
            "(repeatable)")
            ->check(CLI::IsMember(SERVICES));
    app.add_option("--serve", texts.served,
                   "Run these services on the system bus that is there, "
                   "without sandbox and COMMAND")
        ->type_name("SERVICE...")
        ->excludes(without)
        ->check(CLI::IsMember(SERVICES));
    add("--bind", options.writableDirectories, "DIR",
        "Directory of the host that COMMAND may write to (repeatable)");
    app.add_flag("--verbose", options.verbose,
                 "Log each request to a service, a line on standard error");
    app.add_flag("--in-place", options.inPlace,
                 "Work in place, as in a container that forbids namespaces; "
                 "root only");
    app.add_option("--inside", options.insideFiles)->expected(2)->group("");
    app.set_version_flag("--version",
                         std::string("bmc-sim " VELMORA_VERSION ", ") +
                             LIBRARY_VERSION);
}

void convert(const Texts& texts, Options& options)
{
    const unsigned long id = std::stoul(texts.systemId, nullptr, 16);
    options.systemId = {static_cast<std::uint8_t>(id & 0xff),
                        static_cast<std::uint8_t>(id >> 8)};
    for (const std::string& text : texts.purposes)
    {
        const auto equals = text.rfind('=');
        options.purposes.insert_or_assign(
            text.substr(0, equals),
            VERSION_PURPOSES.complete(text.substr(equals + 1)).value_or(""));
    }
    options.serves = !texts.served.empty();
    std::ranges::set_difference(
        options.serves ? texts.served : SERVICES, texts.absent,
        std::inserter(options.services, options.services.end()));
    if (!options.insideFiles.empty())
    {
        std::size_t number = 0;
        for (InputFile* const input : inputFiles(options))
        {
            input->file = sandboxCopy(number++);
        }
    }
}

/** Parses, and ends the program when that does not lead to a run. */
void parseWith(CLI::App& app, std::vector<std::string> arguments,
               bool hasCommand)
{
    // CLI11 wants the arguments in reverse order.
    std::ranges::reverse(arguments);
    try
    {
        app.parse(std::move(arguments));
        if (hasCommand == (app.count("--serve") > 0))
        {
            throw CLI::ValidationError(
                hasCommand ? "--serve takes no COMMAND"
                           : "COMMAND is missing; it comes after --");
        }
    }
    catch (const CLI::ParseError& error)
    {
        std::exit(tools::endParse(app, error));
    }
}

} // namespace

std::vector<InputFile*> inputFiles(Options& options)
{
    std::vector<InputFile*> files(options.keyrings.size());
    std::ranges::transform(options.keyrings, files.begin(),
                           [](InputFile& file) { return &file; });
    for (auto* const file : {&options.rootCa, &options.signerKey})
    {
        if (file->has_value())
        {
            files.push_back(&file->value());
        }
    }
    return files;
}

Options parseOptions(const std::vector<std::string>& arguments)
{
    Options options;
    Texts texts;
    CLI::App app("", "bmc-sim");
    app.formatter(std::make_shared<HelpFormatter>());
    app.footer(FOOTER);
    tools::setUpComplaints(app);
    declareOptions(app, options, texts);
    // What follows the separator is COMMAND's, whatever it looks like.
    const auto separator = std::ranges::find(arguments, "--");
    const bool hasCommand = arguments.end() - separator > 1;
    parseWith(app, {arguments.begin(), separator}, hasCommand);
    if (hasCommand)
    {
        options.command.assign(separator + 1, arguments.end());
    }
    convert(texts, options);
    return options;
}

} // namespace bmc_sim
