#include "cause_table.hpp"
#include "commands.hpp"
#include "common/command_line.hpp"
#include "common/error.hpp"
#include "common/files.hpp"
#include "common/progress.hpp"
#include "common/purposes.hpp"
#include "common/signals.hpp"
#include "explain_command.hpp"
#include "json.hpp"

#include <nlohmann/json.hpp>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <array>
#include <exception>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{

using namespace velmora::front;
using tools::printable;

/** A sum of sizes that are no larger does not overflow. */
constexpr std::uint64_t MAX_SIZE = std::uint64_t{1} << 60;

constexpr const char* EXIT_STATUSES =
    "Exit status:\n"
    "  0  accepted, or done\n"
    "  1  refused\n"
    "  2  wrong usage\n"
    "  3  could not be checked: a service that does not answer, an exception\n"
    "     of the library, a missing or unreadable file\n";

constexpr std::string_view INVENTORY_PREFIX =
    "/xyz/openbmc_project/inventory/system/";

/** A command that asks the library about one thing at a time. */
struct Command
{
    std::string_view name;
    Answer (*answer)(const Request&);
    /** What it is asked about, in the help. */
    const char* subject;
    const char* subjectHelp;
    const char* help;
    /** Whether it judges, where others do what they are asked. */
    bool judges = false;
};

constexpr std::array COMMANDS{
    Command{"unpack", unpack, "PACKAGE", "ZIP file",
            "Unpack descriptor, signature and payload"},
    Command{"validate", validate, "PACKAGE",
            "ZIP files, or directories of unpacked ones",
            "Say whether packages may be trusted", true},
    Command{"info", info, "DIR", "Unpacked package",
            "Show what a descriptor says; nothing of it is verified"},
    Command{"digest", digest, "PATH", "File or directory",
            "SHA-256 of a file, or composite of a directory"},
    Command{"purpose", purpose, "DIR", "Unpacked package",
            "Say what an unpacked package is for"},
    Command{"verify-image", verifyImage, "IMAGE", "Signed image",
            "Verify an image with its manifest and signature", true},
    Command{"verify-payload", verifyPayload, "PAYLOAD", "Signed payload",
            "Verify a signed payload; the secure-boot root CA file is consumed",
            true},
};

constexpr const char* INVENTORY_PATH_HELP =
    "Inventory path, /xyz/openbmc_project/inventory/system/NAME";

constexpr std::array INVENTORY_COMMANDS{
    Command{"inventory add", addToInventory, "PATH", INVENTORY_PATH_HELP,
            "Publish an object"},
    Command{"inventory remove", removeFromInventory, "PATH",
            INVENTORY_PATH_HELP, "Withdraw an object"},
    Command{"inventory model", inventoryModel, "PATH", INVENTORY_PATH_HELP,
            "Show an object's model"},
};

/** What the user asked for. */
struct Invocation
{
    Request request;
    bool json = false;
    /** Null for the one that explains a log. */
    const Command* command = nullptr;
    /** What is asked about, one after the other. */
    std::vector<std::string> subjects;
    std::string log = "-";
    std::string library;
};

/** Why the path would make the library throw, or empty. */
std::string inventoryPathError(const std::string& path)
{
    return path.starts_with(INVENTORY_PREFIX) &&
                   sd_bus_object_path_is_valid(path.c_str()) > 0
               ? ""
               : "no inventory path below " + std::string(INVENTORY_PREFIX) +
                     ": " + path;
}

/** An option that takes one of several names. */
template <typename Value, std::size_t Count>
CLI::Option* addChoice(CLI::App* sub, const std::string& name, Value& value,
                       const tools::BusEnumeration<Count>& choices,
                       const std::string& help)
{
    const auto choose = [&value, &choices](const std::string& text)
    {
        const auto* const chosen = std::ranges::find(choices.names, text);
        value = static_cast<Value>(chosen - choices.names.begin());
    };
    const std::vector<std::string> names(choices.names.begin(),
                                         choices.names.end());
    return sub->add_option_function<std::string>(name, choose, help)
        ->check(CLI::IsMember(names).description("NAME"));
}

std::string fieldText(const nlohmann::ordered_json& field)
{
    std::string text = field.is_string() ? field.get<std::string>() : "";
    for (std::size_t i = 0; field.is_array() && i < field.size(); ++i)
    {
        text += (i == 0 ? "" : " ") + field[i].get<std::string>();
    }
    return text.empty() ? "-" : printable(text);
}

std::string word(const Command& command, Verdict verdict)
{
    return verdict == Verdict::UNCHECKED ? "could not be checked"
           : verdict == Verdict::REFUSED ? "refused"
           : command.judges              ? "accepted"
                                         : "done";
}

nlohmann::ordered_json asJson(const Command& command,
                              const std::string& subject, const Answer& answer)
{
    nlohmann::ordered_json object;
    object["command"] = command.name;
    object["subject"] = subject;
    object["verdict"] = answer.verdict == Verdict::UNCHECKED
                            ? "unchecked"
                            : word(command, answer.verdict);
    object["verified"] = answer.isVerified;
    object["reason"] = answer.reason;
    object.update(answer.fields);
    if (answer.refusal.hasFailed())
    {
        object["cause"] = answer.refusal.site;
        object["details"] = detailsAsJson(answer.refusal);
    }
    return object;
}

/** Prints an answer, behind the file's name where there are several. */
void printText(const Command& command, const std::string& subject,
               const Answer& answer, bool isOneOfMany)
{
    const bool isUnchecked = answer.verdict == Verdict::UNCHECKED;
    const bool isValue = answer.verdict == Verdict::ACCEPTED &&
                         !command.judges && !answer.fields.empty();
    const std::string reason =
        (answer.reason.empty() ? "" : ": ") + printable(answer.reason);
    const std::string name = printable(subject);
    if (!isValue)
    {
        (isUnchecked && !isOneOfMany ? std::cerr << "velmora: " : std::cout)
            << (isUnchecked || isOneOfMany ? name + ": " : "")
            << word(command, answer.verdict) << reason << '\n';
        return;
    }
    for (const auto& [field, value] : answer.fields.items())
    {
        std::cout << (answer.fields.size() > 1 ? inWords(field) + ": " : "")
                  << fieldText(value) << '\n';
    }
    if (!reason.empty())
    {
        std::cerr << "velmora: " << name << reason << '\n';
    }
}

void addCommand(CLI::App& parent, const Command& command, Invocation& chosen)
{
    const std::string name(command.name.substr(command.name.rfind(' ') + 1));
    CLI::App* sub = parent.add_subcommand(name, command.help);
    sub->fallthrough();
    sub->callback([&chosen, &command] { chosen.command = &command; });
    CLI::Option* subjects =
        sub->add_option(command.subject, chosen.subjects, command.subjectHelp)
            ->required();
    if (name != "validate")
    {
        subjects->expected(1)->allow_extra_args(false);
    }
}

/** Reads "64MiB" as a number of bytes.
 *
 *  @return what is wrong with it, or empty */
std::string toBytes(std::string& size)
{
    const std::string given = size;
    std::uint64_t bytes = 0;
    try
    {
        // CLI11 takes a number with a leading zero for an octal one.
        if (!size.starts_with('0') && CLI::AsSizeValue(false)(size).empty() &&
            CLI::detail::lexical_cast(size, bytes) && bytes > 0 &&
            bytes <= MAX_SIZE)
        {
            return {};
        }
    }
    catch (const CLI::Error&) // NOLINT(bugprone-empty-catch)
    {
        // What it says is less than what is said below.
    }
    return "no size: " + given +
           "; it is a number of bytes, or one with KiB, "
           "MiB or GiB";
}

/** The bus takes no other text. */
std::string expectUtf8(const std::string& text)
{
    try
    {
        static_cast<void>(nlohmann::json(text).dump());
        return {};
    }
    catch (const nlohmann::json::exception&)
    {
        return "not UTF-8: " + text;
    }
}

/** A variable of a script that is not set must not accept everything. */
std::string expectVersion(const std::string& version)
{
    return version.empty() ? "no version: it is empty" : "";
}

void addPackageCommands(CLI::App& app, Invocation& chosen)
{
    for (const Command& command : COMMANDS)
    {
        addCommand(app, command, chosen);
    }
    app.get_subcommand("unpack")
        ->add_option("DIR", chosen.request.directory, "Existing directory")
        ->required();
    app.get_subcommand("verify-image")
        ->add_option("MANIFEST_DIR", chosen.request.directory,
                     "Directory of image-ktb and image-ktb.sig")
        ->required();
    for (const char* name : {"unpack", "validate"})
    {
        app.get_subcommand(name)
            ->add_option("--max-size", chosen.request.maxSize,
                         "Bytes, or such as 64MiB (default 1GiB)")
            ->transform(CLI::Validator(toBytes, "SIZE"));
    }
    for (const char* name : {"validate", "verify-image", "verify-payload"})
    {
        app.get_subcommand(name)->add_flag(
            "--strict", chosen.request.strict,
            "Refuse also what a careful daemon should not take");
    }
    app.get_subcommand("validate")
        ->add_option("--min-version", chosen.request.minVersion,
                     "Refuse a lower version")
        ->check(expectVersion)
        ->type_name("VERSION");
}

void addInventoryCommands(CLI::App& app, Invocation& chosen)
{
    CLI::App* inventory =
        app.add_subcommand("inventory", "Software objects on the bus");
    inventory->require_subcommand(1);
    inventory->fallthrough();
    for (const Command& command : INVENTORY_COMMANDS)
    {
        addCommand(*inventory, command, chosen);
    }
    for (CLI::App* sub : inventory->get_subcommands(nullptr))
    {
        sub->get_option("PATH")->check(inventoryPathError);
    }
    CLI::App* sub = inventory->get_subcommand("add");
    sub->add_option("--detail1", chosen.request.detail1,
                    "First detail, handed on to the inventory manager")
        ->check(expectUtf8);
    sub->add_option("--detail2", chosen.request.detail2,
                    "Second detail, handed on to the inventory manager")
        ->check(expectUtf8);
    addChoice(sub, "--purpose", chosen.request.purpose, tools::VERSION_PURPOSES,
              "Such as BMC or BIOS")
        ->required();
    addChoice(sub, "--release-type", chosen.request.releaseType,
              tools::RELEASE_TYPES, "Other (default), Production or Prototype");
}

void addExplain(CLI::App& app, Invocation& chosen)
{
    CLI::App* sub =
        app.add_subcommand("explain", "Say what the library's log means");
    sub->fallthrough();
    sub->add_option("LOG", chosen.log,
                    "File; without it or for -, standard input");
    sub->add_option("--library", chosen.library,
                    "Library of the build that wrote the log; by default the "
                    "one that velmora runs with");
}

void addEverything(CLI::App& app, Invocation& chosen)
{
    app.footer(EXIT_STATUSES);
    app.require_subcommand(1);
    app.set_version_flag("--version", versionText);
    app.add_flag("-v,--verbose", chosen.request.verbose,
                 "Show the library's log on stderr");
    app.add_flag("--json", chosen.json, "Answer in JSON");
    app.add_flag_callback("--quiet", tools::Progress::forbid,
                          "Show no bar while more than 100 MiB are checked");
    tools::setUpComplaints(app);
    addPackageCommands(app, chosen);
    addInventoryCommands(app, chosen);
    addExplain(app, chosen);
}

Answer answerTo(const Command& command, const Request& request)
{
    try
    {
        return command.answer(request);
    }
    catch (const std::exception& e)
    {
        const std::string what = e.what();
        // A call that cannot even be made leaves the inventory's operations.
        const bool isBus = what.starts_with("sd_bus_");
        return {Verdict::UNCHECKED,
                what +
                    (isBus ? "; " + adviceOnBus("busctl --system list") : "")};
    }
}

/** @return exit status: the worst verdict */
int answerAll(Invocation& invocation)
{
    const Command& command = *invocation.command;
    const bool isBatch = invocation.subjects.size() > 1;
    auto json = nlohmann::ordered_json::array();
    std::map<Verdict, std::size_t> counts;
    for (const std::string& subject : invocation.subjects)
    {
        invocation.request.subject = subject;
        const Answer answer = answerTo(command, invocation.request);
        ++counts[answer.verdict];
        json.push_back(asJson(command, subject, answer));
        if (!invocation.json)
        {
            printText(command, subject, answer, isBatch);
            std::cout.flush();
        }
    }
    const int worst = static_cast<int>(counts.rbegin()->first);
    if (invocation.json)
    {
        std::cout << asText(isBatch ? json : json.front()) << '\n';
    }
    else if (isBatch)
    {
        std::cout << invocation.subjects.size()
                  << " packages: " << counts[Verdict::ACCEPTED] << " accepted, "
                  << counts[Verdict::REFUSED] << " refused, "
                  << counts[Verdict::UNCHECKED] << " could not be checked\n";
    }
    return worst;
}

} // namespace

int main(int argc, char** argv)
try
{
    tools::cleanUpOnSignals();
    tools::openStandardStreams();
    Invocation invocation;
    CLI::App app{"Checks firmware-update packages as the BMC does.", "velmora"};
    addEverything(app, invocation);
    try
    {
        tools::parse(app, argc, argv);
    }
    catch (const CLI::ParseError& e)
    {
        return tools::endParse(app, e);
    }
    int status = 0;
    if (invocation.command != nullptr)
    {
        status = answerAll(invocation);
    }
    else
    {
        explain(invocation.log, invocation.library, invocation.json);
    }
    if (!std::cout.flush())
    {
        throw std::runtime_error("the answer cannot be written to stdout");
    }
    return status;
}
catch (const std::exception& e)
{
    std::cerr << "velmora: " << printable(e.what()) << '\n';
    return static_cast<int>(Verdict::UNCHECKED);
}
