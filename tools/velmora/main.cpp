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

template <typename Value>
using Choices = std::map<std::string, Value>;

Choices<ValidateQOR::VersionPurpose> purposes()
{
    Choices<ValidateQOR::VersionPurpose> names;
    for (const auto& [value, text] : sdbusplus::common::xyz::openbmc_project::
             software::details::mappingVersionVersionPurpose)
    {
        names.emplace(shortName(text), value);
    }
    return names;
}

/** An option that takes one of several names. */
template <typename Value>
CLI::Option* addChoice(CLI::App* sub, const std::string& name, Value& value,
                       const Choices<Value>& choices, const std::string& help)
{
    const CLI::IsMember isMember(choices);
    const auto choose = [isMember, choices](std::string& text)
    {
        std::string error = isMember(text);
        // An enumerator is read by its value.
        text = error.empty()
                   ? std::to_string(static_cast<int>(choices.at(text)))
                   : text;
        return error;
    };
    return sub->add_option(name, value, help)
        ->transform(CLI::Validator(choose, "NAME"));
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

/** The command line, and the command that it names. */
class CommandLine
{
  public:
    CommandLine()
    {
        app_.footer(EXIT_STATUSES);
        app_.require_subcommand(1);
        app_.set_version_flag("--version", versionText);
        app_.add_flag("-v,--verbose", request.verbose,
                      "Show the library's log on stderr");
        app_.add_flag("--json", json, "Answer with one JSON object");
        app_.failure_message(
            [](const CLI::App*, const CLI::Error& error)
            {
                return "velmora: " + printable(error.what()) +
                       " (--help tells more)\n";
            });
        addPackageCommands();
        addInventoryCommands();
        addExplain();
    }

    void parse(int argc, char** argv) { app_.parse(argc, argv); }

    int exit(const CLI::ParseError& e) const
    {
        const auto chosen = app_.get_subcommands();
        const CLI::App& parent = chosen.empty() ? app_ : *chosen.front();
        const auto rest = app_.remaining(true);
        const auto commands = parent.get_subcommands(nullptr);
        if (e.get_exit_code() != 0 && !rest.empty() && !commands.empty() &&
            parent.get_subcommands().empty())
        {
            const CLI::App* nearest = *std::ranges::min_element(
                commands, {}, [&rest](const CLI::App* each)
                { return distance(rest[0], each->get_name()); });
            std::cerr << "velmora: there is no "
                      << (rest[0].starts_with('-') ? "option " : "command ")
                      << printable(rest[0])
                      << (rest[0].starts_with('-')
                              ? ""
                              : "; the nearest is " + nearest->get_name())
                      << " (--help tells more)\n";
            return WRONG_USAGE;
        }
        return app_.exit(e) == 0 ? 0 : WRONG_USAGE;
    }

    Request request;
    bool json = false;
    bool isExplain = false;
    std::string log = "-";
    std::string library;
    /** Name and function of the chosen command. */
    std::string command;
    Answer (*function)(const Request&) = nullptr;
    /** What is to be validated, one after the other. */
    std::vector<std::string> subjects;

  private:
    CLI::App* add(CLI::App& parent, const std::string& name,
                  const std::string& description, Answer (*run)(const Request&),
                  const std::string& subject, const std::string& help)
    {
        CLI::App* sub = parent.add_subcommand(name, description);
        sub->fallthrough();
        (name == "validate" ? sub->add_option(subject, subjects, help)
                            : sub->add_option(subject, request.subject, help))
            ->required();
        const std::string full =
            &parent == &app_ ? name : parent.get_name() + " " + name;
        sub->callback(
            [this, full, run]
            {
                command = full;
                function = run;
            });
        return sub;
    }

    void addStrict(CLI::App* sub)
    {
        CLI::Option* strict =
            sub->add_flag("--strict", request.strict,
                          "Refuse also what a careful daemon should not take");
        sub->add_option("--max-size", request.maxSize,
                        "With --strict: bytes, or 64MiB (default 1GiB)")
            ->transform(CLI::AsSizeValue(false))
            ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1} << 60))
            ->needs(strict);
    }

    void addPackageCommands()
    {
        add(app_, "unpack", "Unpack descriptor, signature and payload", unpack,
            "PACKAGE", "ZIP file")
            ->add_option("DIR", request.directory, "Existing directory")
            ->required();
        addStrict(add(app_, "validate", "Say whether packages may be trusted",
                      validate, "PACKAGE",
                      "ZIP files, or directories of unpacked ones"));
        add(app_, "info",
            "Show what a descriptor says; nothing of it is verified", info,
            "DIR", "Unpacked package");
        add(app_, "digest", "SHA-256 of a file, or composite of a directory",
            digest, "PATH", "File or directory");
        add(app_, "purpose", "Say what an unpacked package is for", purpose,
            "DIR", "Unpacked package");
        CLI::App* image = add(app_, "verify-image",
                              "Verify an image with its manifest and signature",
                              verifyImage, "IMAGE", "Signed image");
        image
            ->add_option("MANIFEST_DIR", request.directory,
                         "Directory of image-ktb and image-ktb.sig")
            ->required();
        addStrict(image);
        addStrict(add(app_, "verify-payload",
                      "Verify a signed payload; the secure-boot root CA file "
                      "is consumed",
                      verifyPayload, "PAYLOAD", "Signed payload"));
    }

    void addInventoryCommands()
    {
        CLI::App* inventory =
            app_.add_subcommand("inventory", "Software objects on the bus");
        inventory->require_subcommand(1);
        inventory->fallthrough();
        const auto addCommand = [this, inventory](const std::string& name,
                                                  const std::string& help,
                                                  Answer (*run)(const Request&))
        {
            CLI::App* sub = add(*inventory, name, help, run, "PATH",
                                "Inventory path, " +
                                    std::string(INVENTORY_PREFIX) + "NAME");
            sub->get_option("PATH")->check(inventoryPathError);
            return sub;
        };
        CLI::App* sub = addCommand("add", "Publish an object", addToInventory);
        sub->add_option("--detail1", request.detail1,
                        "First detail, handed on to the inventory manager");
        sub->add_option("--detail2", request.detail2,
                        "Second detail, handed on to the inventory manager");
        addChoice(sub, "--purpose", request.purpose, purposes(),
                  "Such as BMC or BIOS")
            ->required();
        using enum ValidateQOR::ReleaseType;
        addChoice(sub, "--release-type", request.releaseType,
                  {{"Other", Other},
                   {"Production", Production},
                   {"Prototype", Prototype}},
                  "Other (default), Production or Prototype");
        addCommand("remove", "Withdraw an object", removeFromInventory);
        addCommand("model", "Show an object's model", inventoryModel);
    }

    void addExplain()
    {
        CLI::App* sub =
            app_.add_subcommand("explain", "Say what the library's log means");
        sub->fallthrough();
        sub->callback([this] { isExplain = true; });
        sub->add_option("LOG", log,
                        "File; without it or for -, standard input");
        sub->add_option("--library", library,
                        "Library of the build that wrote the log; by default "
                        "the one that velmora runs with");
    }

    CLI::App app_{"Checks firmware-update packages as the BMC does.",
                  "velmora"};
};

Answer answerTo(const CommandLine& line)
{
    try
    {
        return line.function(line.request);
    }
    catch (const std::exception& e)
    {
        return Answer(Verdict::unchecked, e.what());
    }
}

/** @return exit status: the worst verdict */
int runAll(CommandLine& line)
{
    const tools::SignalCleanup cleanup;
    const bool isBatch = line.subjects.size() > 1;
    if (line.subjects.empty())
    {
        line.subjects.push_back(line.request.subject);
    }
    auto json = nlohmann::ordered_json::array();
    std::map<Verdict, std::size_t> counts;
    for (const std::string& subject : line.subjects)
    {
        line.request.subject = subject;
        const Answer answer = answerTo(line);
        if (const int signal = tools::SignalCleanup::seen(); signal != 0)
        {
            return KILLED_BY_SIGNAL + signal;
        }
        ++counts[answer.verdict];
        json.push_back(asJson(line.command, subject, answer));
        if (!line.json)
        {
            printText(line.command, subject, answer, isBatch);
        }
    }
    if (line.json)
    {
        std::cout << asText(isBatch ? json : json.front()) << '\n';
    }
    else if (isBatch)
    {
        std::cout << line.subjects.size()
                  << " packages: " << counts[Verdict::accepted] << " accepted, "
                  << counts[Verdict::refused] << " refused, "
                  << counts[Verdict::unchecked] << " could not be checked\n";
    }
    std::erase_if(counts, [](const auto& count) { return count.second == 0; });
    return static_cast<int>(counts.rbegin()->first);
}

} // namespace

int main(int argc, char** argv)
try
{
    CommandLine line;
    try
    {
        line.parse(argc, argv);
    }
    catch (const CLI::ParseError& e)
    {
        return line.exit(e);
    }
    const int status = !line.isExplain ? runAll(line)
                       : explain(line.log, line.library, line.json)
                           ? 0
                           : static_cast<int>(Verdict::unchecked);
    std::cout.flush();
    if (!std::cout)
    {
        std::cerr << "velmora: the answer cannot be written to stdout\n";
        return static_cast<int>(Verdict::unchecked);
    }
    return status;
}
catch (const std::exception& e)
{
    std::cerr << "velmora: " << printable(e.what()) << '\n';
    return static_cast<int>(Verdict::unchecked);
}
