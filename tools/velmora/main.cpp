#include "causes.hpp"
#include "commands.hpp"
#include "common/error.hpp"
#include "common/signals.hpp"
#include "explain.hpp"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <string>

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

std::string fieldText(const nlohmann::ordered_json& field)
{
    if (field.is_string())
    {
        const auto& text = field.get_ref<const std::string&>();
        return text.empty() ? "-" : text;
    }
    std::string text;
    for (const auto& element : field)
    {
        text += (text.empty() ? "" : " ") + element.get<std::string>();
    }
    return text.empty() ? "-" : text;
}

const char* word(Verdict verdict)
{
    switch (verdict)
    {
        case Verdict::accepted:
            return "accepted";
        case Verdict::refused:
            return "refused";
        case Verdict::unchecked:
            break;
    }
    return "unchecked";
}

void printJson(const std::string& command, const Request& request,
               const Answer& answer)
{
    nlohmann::ordered_json object;
    object["command"] = command;
    object["subject"] = request.subject;
    object["verdict"] = word(answer.verdict);
    object["reason"] = answer.reason;
    object.update(answer.fields);
    std::cout << asText(object) << '\n';
}

void printText(const std::string& command, const Request& request,
               const Answer& answer)
{
    if (answer.verdict == Verdict::unchecked)
    {
        std::cerr << "velmora: " << printable(request.subject)
                  << ": could not be checked: " << printable(answer.reason)
                  << '\n';
        return;
    }
    if (answer.verdict == Verdict::refused)
    {
        std::cout << "refused: " << printable(answer.reason) << '\n';
        return;
    }
    if (command == "validate" || command.starts_with("verify") ||
        answer.fields.empty())
    {
        std::cout << "accepted"
                  << (answer.reason.empty() ? "" : ": " + answer.reason)
                  << '\n';
        return;
    }
    for (const auto& [name, field] : answer.fields.items())
    {
        std::cout << (answer.fields.size() > 1 ? name + ": " : "")
                  << printable(fieldText(field)) << '\n';
    }
    if (!answer.reason.empty())
    {
        std::cerr << "velmora: " << printable(request.subject) << ": "
                  << printable(answer.reason) << '\n';
    }
}

std::string versionText()
{
    const CauseTable loaded(linkedLibrary());
    return "velmora " VELMORA_VERSION ", with " +
           std::filesystem::canonical(loaded.library()).string() +
           ", build-id " + loaded.buildId();
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
        addFirmwareCommands();
        addInventoryCommands();
        addExplain();
    }

    void parse(int argc, char** argv) { app_.parse(argc, argv); }

    int exit(const CLI::ParseError& e) const
    {
        return app_.exit(e) == 0 ? 0 : WRONG_USAGE;
    }

    Request request;
    bool json = false;
    bool isExplain = false;
    std::string library;
    /** Name and function of the chosen command. */
    std::string name;
    std::function<Answer(const Request&)> run;

  private:
    CLI::App* add(CLI::App& parent, const std::string& command,
                  const std::string& description,
                  Answer (*function)(const Request&))
    {
        CLI::App* sub = parent.add_subcommand(command, description);
        sub->fallthrough();
        const std::string full =
            &parent == &app_ ? command : parent.get_name() + " " + command;
        sub->callback(
            [this, full, function]
            {
                name = full;
                run = function;
            });
        return sub;
    }

    void addPackageCommands()
    {
        CLI::App* sub = add(app_, "unpack",
                            "Unpack descriptor, signature and payload", unpack);
        sub->add_option("PACKAGE", request.subject, "ZIP file")->required();
        sub->add_option("DIR", request.directory, "Existing directory")
            ->required();
        sub = add(app_, "validate", "Say whether a package may be trusted",
                  validate);
        sub->add_option("PACKAGE", request.subject,
                        "ZIP file, or the directory of an unpacked one")
            ->required();
        sub =
            add(app_, "info",
                "Show what a descriptor says; nothing of it is verified", info);
        sub->add_option("DIR", request.subject, "Unpacked package")->required();
        sub = add(app_, "digest",
                  "SHA-256 of a file, or the composite of a directory", digest);
        sub->add_option("PATH", request.subject, "File or directory")
            ->required();
        sub = add(app_, "purpose", "Say what an unpacked package is for",
                  purpose);
        sub->add_option("DIR", request.subject, "Unpacked package")->required();
    }

    void addFirmwareCommands()
    {
        CLI::App* sub =
            add(app_, "verify-image",
                "Verify an image with its manifest and signature", verifyImage);
        sub->add_option("IMAGE", request.subject, "Signed image")->required();
        sub->add_option("MANIFEST_DIR", request.directory,
                        "Directory of image-ktb and image-ktb.sig")
            ->required();
        sub = add(app_, "verify-payload",
                  "Verify a signed payload; the secure-boot root CA file is "
                  "consumed",
                  verifyPayload);
        sub->add_option("PAYLOAD", request.subject, "Signed payload")
            ->required();
    }

    void addInventoryCommands()
    {
        CLI::App* inventory =
            app_.add_subcommand("inventory", "Software objects on the bus");
        inventory->require_subcommand(1);
        inventory->fallthrough();
        const std::string pathHelp =
            "Inventory path, /xyz/openbmc_project/inventory/system/NAME";

        CLI::App* sub =
            add(*inventory, "add", "Publish an object", addToInventory);
        sub->add_option("PATH", request.subject, pathHelp)->required();
        sub->add_option("--detail1", request.detail1,
                        "First detail, handed on to the inventory manager");
        sub->add_option("--detail2", request.detail2,
                        "Second detail, handed on to the inventory manager");
        sub->add_option("--purpose", request.purpose, "Such as BMC or BIOS")
            ->required();
        sub->add_option("--release-type", request.releaseType,
                        "Other, Production or Prototype")
            ->check(CLI::IsMember({"Other", "Production", "Prototype"}))
            ->default_val("Other");
        sub = add(*inventory, "remove", "Withdraw an object",
                  removeFromInventory);
        sub->add_option("PATH", request.subject, pathHelp)->required();
        sub =
            add(*inventory, "model", "Show an object's model", inventoryModel);
        sub->add_option("PATH", request.subject, pathHelp)->required();
    }

    void addExplain()
    {
        CLI::App* sub =
            app_.add_subcommand("explain", "Say what the library's log means");
        sub->fallthrough();
        sub->callback([this] { isExplain = true; });
        sub->add_option("LOG", request.subject,
                        "File; without it or for -, standard input");
        sub->add_option("--library", library,
                        "Library of the build that wrote the log; by default "
                        "the one that velmora runs with");
    }

    CLI::App app_{"Checks firmware-update packages as the BMC does.",
                  "velmora"};
};

Answer run(const CommandLine& line)
{
    try
    {
        return line.run(line.request);
    }
    catch (const std::exception& e)
    {
        const std::string text = e.what();
        return {Verdict::unchecked,
                text == "stoi" ? "a systemID of the descriptor is no number"
                               : text};
    }
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
    if (line.isExplain)
    {
        return explain(line.request.subject.empty() ? "-"
                                                    : line.request.subject,
                       line.library, line.json)
                   ? 0
                   : static_cast<int>(Verdict::unchecked);
    }
    const tools::SignalCleanup cleanup;
    const Answer answer = run(line);
    if (const int signal = tools::SignalCleanup::seen(); signal != 0)
    {
        return KILLED_BY_SIGNAL + signal;
    }
    if (line.json)
    {
        printJson(line.name, line.request, answer);
    }
    else
    {
        printText(line.name, line.request, answer);
    }
    std::cout.flush();
    if (!std::cout)
    {
        std::cerr << "velmora: the answer cannot be written to stdout\n";
        return static_cast<int>(Verdict::unchecked);
    }
    return static_cast<int>(answer.verdict);
}
catch (const std::exception& e)
{
    std::cerr << "velmora: " << printable(e.what()) << '\n';
    return static_cast<int>(Verdict::unchecked);
}
