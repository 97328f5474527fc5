#include "causes.hpp"
#include "commands.hpp"
#include "common/error.hpp"
#include "common/signals.hpp"
#include "explain.hpp"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <exception>
#include <iostream>
#include <map>
#include <numeric>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace
{

using namespace velmora::front;
using tools::printable;

constexpr int WRONG_USAGE = 2;
constexpr int KILLED_BY_SIGNAL = 128;

constexpr const char* EXIT_STATUSES =
    "Exit status:\n"
    "  0  accepted, or done\n"
    "  1  refused\n"
    "  2  wrong usage\n"
    "  3  could not be checked: a service that does not answer, an exception\n"
    "     of the library, a missing or unreadable file\n";

constexpr std::string_view INVENTORY_PREFIX =
    "/xyz/openbmc_project/inventory/system/";

/** What the library would throw at, or empty. */
std::string inventoryPathError(const std::string& path)
{
    return path.starts_with(INVENTORY_PREFIX) &&
                   path.size() > INVENTORY_PREFIX.size()
               ? ""
               : "no inventory path below " + std::string(INVENTORY_PREFIX) +
                     ": " + path;
}

std::map<std::string, ValidateQOR::VersionPurpose> purposesByName()
{
    std::map<std::string, ValidateQOR::VersionPurpose> purposes;
    for (const auto& [value, text] : sdbusplus::common::xyz::openbmc_project::
             software::details::mappingVersionVersionPurpose)
    {
        purposes.emplace(shortName(text), value);
    }
    return purposes;
}

/** An option that takes one of several names.
 *
 *  @param choices what each name stands for; kept */
template <typename Value>
CLI::Option* addChoice(CLI::App* sub, const std::string& name, Value& value,
                       const std::map<std::string, Value>& choices,
                       const std::string& help)
{
    const auto choose = [&value, &choices](const std::string& text)
    { value = choices.at(text); };
    return sub->add_option_function<std::string>(name, choose, help)
        ->check(CLI::IsMember(choices).description("NAME"));
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

/** Whether a command judges, where others do what they are asked. */
bool judges(const std::string& command)
{
    return command == "validate" || command.starts_with("verify");
}

std::string word(const std::string& command, Verdict verdict)
{
    return verdict == Verdict::unchecked ? "could not be checked"
           : verdict == Verdict::refused ? "refused"
           : judges(command)             ? "accepted"
                                         : "done";
}

nlohmann::ordered_json asJson(const std::string& command,
                              const std::string& subject, const Answer& answer)
{
    nlohmann::ordered_json object;
    object["command"] = command;
    object["subject"] = subject;
    object["verdict"] = answer.verdict == Verdict::unchecked
                            ? "unchecked"
                            : word(command, answer.verdict);
    object["verified"] = answer.isVerified;
    object["reason"] = answer.reason;
    object.update(answer.fields);
    if (answer.refusal.refused)
    {
        object["cause"] = asJson(answer.refusal.site);
        object["details"] = detailsAsJson(answer.refusal);
    }
    return object;
}

/** Prints an answer, behind the file's name where there are several. */
void printText(const std::string& command, const std::string& subject,
               const Answer& answer, bool isOneOfMany)
{
    const bool isUnchecked = answer.verdict == Verdict::unchecked;
    const std::string reason =
        (answer.reason.empty() ? "" : ": ") + printable(answer.reason);
    const std::string name = printable(subject);
    if (isOneOfMany || answer.verdict != Verdict::accepted || judges(command) ||
        answer.fields.empty())
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

/** How many characters must be changed, added or left out. */
std::size_t distance(const std::string& from, const std::string& to)
{
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), 0U);
    for (std::size_t i = 0; i < from.size(); ++i)
    {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < to.size(); ++j)
        {
            const std::size_t changed = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

/** What the user asked for, and the command that answers. */
struct Invocation
{
    Request request;
    bool json = false;
    /** What is asked about, one after the other. */
    std::vector<std::string> subjects;
    std::string log = "-";
    std::string library;
    std::string command;
    /** Not set for the command that explains a log. */
    Answer (*function)(const Request&) = nullptr;
};

/** The command line: it fills an invocation. */
class CommandLine
{
  public:
    explicit CommandLine(Invocation& invocation) : chosen_(invocation)
    {
        app_.footer(EXIT_STATUSES);
        app_.require_subcommand(1);
        app_.set_version_flag("--version", versionText);
        app_.add_flag("-v,--verbose", chosen_.request.verbose,
                      "Show the library's log on stderr");
        app_.add_flag("--json", chosen_.json, "Answer with one JSON object");
        app_.failure_message(
            [](const CLI::App*, const CLI::Error& error)
            {
                return "velmora: " + printable(error.what()) +
                       " (--help tells more)\n";
            });
        addPackageCommands();
        addSignatureCommands();
        addInventoryCommands();
        addExplain();
    }

    void parse(int argc, char** argv) { app_.parse(argc, argv); }

    /** Prints a help text, or what is wrong. */
    int exit(const CLI::ParseError& e) const
    {
        const auto chosen = app_.get_subcommands();
        const CLI::App& parent = chosen.empty() ? app_ : *chosen.front();
        const auto rest = app_.remaining(true);
        const auto commands = parent.get_subcommands(nullptr);
        if (e.get_exit_code() == 0 || rest.empty() || commands.empty() ||
            !parent.get_subcommands().empty())
        {
            return app_.exit(e) == 0 ? 0 : WRONG_USAGE;
        }
        const CLI::App* nearest = *std::ranges::min_element(
            commands, {}, [&rest](const CLI::App* each)
            { return distance(rest[0], each->get_name()); });
        std::cerr << "velmora: there is no "
                  << (rest[0].starts_with('-')
                          ? "option " + printable(rest[0])
                          : "command " + printable(rest[0]) +
                                "; the nearest is " + nearest->get_name())
                  << " (--help tells more)\n";
        return WRONG_USAGE;
    }

  private:
    CLI::App* add(CLI::App& parent, const std::string& name,
                  const std::string& description, Answer (*run)(const Request&),
                  const std::string& subject, const std::string& help)
    {
        CLI::App* sub = parent.add_subcommand(name, description);
        sub->fallthrough();
        CLI::Option* subjects =
            sub->add_option(subject, chosen_.subjects, help)->required();
        if (name != "validate")
        {
            subjects->expected(1)->allow_extra_args(false);
        }
        const std::string full =
            &parent == &app_ ? name : parent.get_name() + " " + name;
        sub->callback(
            [this, full, run]
            {
                chosen_.command = full;
                chosen_.function = run;
            });
        return sub;
    }

    void addPackageCommands()
    {
        add(app_, "unpack", "Unpack descriptor, signature and payload", unpack,
            "PACKAGE", "ZIP file")
            ->add_option("DIR", chosen_.request.directory, "Existing directory")
            ->required();
        add(app_, "info",
            "Show what a descriptor says; nothing of it is verified", info,
            "DIR", "Unpacked package");
        add(app_, "digest", "SHA-256 of a file, or composite of a directory",
            digest, "PATH", "File or directory");
        add(app_, "purpose", "Say what an unpacked package is for", purpose,
            "DIR", "Unpacked package");
    }

    void addSignatureCommands()
    {
        CLI::App* package = add(
            app_, "validate", "Say whether packages may be trusted", validate,
            "PACKAGE", "ZIP files, or directories of unpacked ones");
        CLI::App* image = add(app_, "verify-image",
                              "Verify an image with its manifest and signature",
                              verifyImage, "IMAGE", "Signed image");
        image
            ->add_option("MANIFEST_DIR", chosen_.request.directory,
                         "Directory of image-ktb and image-ktb.sig")
            ->required();
        CLI::App* payload =
            add(app_, "verify-payload",
                "Verify a signed payload; the secure-boot root CA file is "
                "consumed",
                verifyPayload, "PAYLOAD", "Signed payload");
        for (CLI::App* sub : {package, image, payload})
        {
            CLI::Option* strict =
                sub->add_flag("--strict", chosen_.request.strict,
                              "Refuse also what a careful daemon should not "
                              "take");
            sub->add_option("--max-size", chosen_.request.maxSize,
                            "With --strict: bytes, or 64MiB (default 1GiB)")
                ->transform(CLI::AsSizeValue(false))
                ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1} << 60))
                ->needs(strict);
        }
    }

    void addInventoryCommands()
    {
        CLI::App* inventory =
            app_.add_subcommand("inventory", "Software objects on the bus");
        inventory->require_subcommand(1);
        inventory->fallthrough();
        const std::string path =
            "Inventory path, " + std::string(INVENTORY_PREFIX) + "NAME";
        CLI::App* published = add(*inventory, "add", "Publish an object",
                                  addToInventory, "PATH", path);
        add(*inventory, "remove", "Withdraw an object", removeFromInventory,
            "PATH", path);
        add(*inventory, "model", "Show an object's model", inventoryModel,
            "PATH", path);
        for (CLI::App* sub : inventory->get_subcommands(nullptr))
        {
            sub->get_option("PATH")->check(inventoryPathError);
        }
        published->add_option(
            "--detail1", chosen_.request.detail1,
            "First detail, handed on to the inventory manager");
        published->add_option(
            "--detail2", chosen_.request.detail2,
            "Second detail, handed on to the inventory manager");
        using enum ValidateQOR::ReleaseType;
        static const std::map<std::string, ValidateQOR::ReleaseType>
            releaseTypes{{"Other", Other},
                         {"Production", Production},
                         {"Prototype", Prototype}};
        static const auto purposes = purposesByName();
        addChoice(published, "--purpose", chosen_.request.purpose, purposes,
                  "Such as BMC or BIOS")
            ->required();
        addChoice(published, "--release-type", chosen_.request.releaseType,
                  releaseTypes, "Other (default), Production or Prototype");
    }

    void addExplain()
    {
        CLI::App* sub =
            app_.add_subcommand("explain", "Say what the library's log means");
        sub->fallthrough();
        sub->add_option("LOG", chosen_.log,
                        "File; without it or for -, standard input");
        sub->add_option("--library", chosen_.library,
                        "Library of the build that wrote the log; by default "
                        "the one that velmora runs with");
    }

    CLI::App app_{"Checks firmware-update packages as the BMC does.",
                  "velmora"};
    Invocation& chosen_;
};

Answer answerTo(const Invocation& invocation)
{
    try
    {
        return invocation.function(invocation.request);
    }
    catch (const std::exception& e)
    {
        return {Verdict::unchecked, e.what()};
    }
}

/** @return exit status: the worst verdict */
int runAll(Invocation& invocation)
{
    const tools::SignalCleanup cleanup;
    const bool isBatch = invocation.subjects.size() > 1;
    auto json = nlohmann::ordered_json::array();
    std::map<Verdict, std::size_t> counts;
    for (const std::string& subject : invocation.subjects)
    {
        invocation.request.subject = subject;
        const Answer answer = answerTo(invocation);
        if (const int signal = tools::SignalCleanup::seen(); signal != 0)
        {
            return KILLED_BY_SIGNAL + signal;
        }
        ++counts[answer.verdict];
        json.push_back(asJson(invocation.command, subject, answer));
        if (!invocation.json)
        {
            printText(invocation.command, subject, answer, isBatch);
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
                  << " packages: " << counts[Verdict::accepted] << " accepted, "
                  << counts[Verdict::refused] << " refused, "
                  << counts[Verdict::unchecked] << " could not be checked\n";
    }
    return worst;
}

} // namespace

int main(int argc, char** argv)
try
{
    Invocation invocation;
    CommandLine line(invocation);
    try
    {
        line.parse(argc, argv);
    }
    catch (const CLI::ParseError& e)
    {
        return line.exit(e);
    }
    const int status =
        invocation.function != nullptr ? runAll(invocation)
        : explain(invocation.log, invocation.library, invocation.json)
            ? 0
            : static_cast<int>(Verdict::unchecked);
    if (!std::cout.flush())
    {
        throw std::runtime_error("the answer cannot be written to stdout");
    }
    return status;
}
catch (const std::exception& e)
{
    std::cerr << "velmora: " << printable(e.what()) << '\n';
    return static_cast<int>(Verdict::unchecked);
}
