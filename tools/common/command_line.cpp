#include "command_line.hpp"

#include "error.hpp"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <string_view>

namespace tools
{
namespace
{

/** In all tools. */
constexpr int WRONG_USAGE = 2;
constexpr std::size_t SYSTEM_ID_DIGITS = 4;

std::string complaint(const CLI::App* app, const CLI::Error& error)
{
    return app->get_name() + ": " + printable(error.what()) +
           " (--help tells more)\n";
}

} // namespace

void setUpComplaints(CLI::App& app) { app.failure_message(complaint); }

void parse(CLI::App& app, int argc, char** argv)
{
    for (int i = 1; i < argc; ++i)
    {
        const std::string_view argument = argv[i];
        if (argument.starts_with('[') && argument.ends_with(']'))
        {
            // CLI11 would take "[a,b]" for a list: other files than are named.
            throw CLI::ValidationError(
                std::string(argument) +
                ": put ./ in front of a file's name, or = "
                "between an option and its value");
        }
    }
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::CallForVersion&)
    {
        if (!app.get_subcommands().empty())
        {
            // The command would not be done, and nobody would be told.
            throw CLI::ValidationError("--version is not for this command");
        }
        throw;
    }
}

int endParse(const CLI::App& app, const CLI::ParseError& error)
{
    const auto chosen = app.get_subcommands();
    const CLI::App& parent = chosen.empty() ? app : *chosen.front();
    const auto rest = app.remaining(true);
    // CLI11 has groups of options among the commands, without a name.
    const auto commands = parent.get_subcommands(
        [](const CLI::App* each) { return !each->get_name().empty(); });
    if (error.get_exit_code() == 0 || rest.empty() || commands.empty() ||
        !parent.get_subcommands().empty())
    {
        const int status = app.exit(error) == 0 ? EXIT_SUCCESS : WRONG_USAGE;
        if (!std::cout.flush())
        {
            throw systemError("standard output");
        }
        return status;
    }
    // CLI11 says only that a command is missing.
    const char* const kind = rest[0].starts_with('-') ? "option " : "command ";
    app.exit(CLI::ValidationError("there is no " + (kind + rest[0])));
    return WRONG_USAGE;
}

std::string normaliseSystemId(std::string& text)
{
    if (text.empty() || text.size() > SYSTEM_ID_DIGITS ||
        text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
    {
        return "not a number of 1 to 4 hexadecimal digits: " + text;
    }
    std::ranges::transform(text, text.begin(), [](unsigned char c)
                           { return static_cast<char>(std::toupper(c)); });
    text.insert(0, SYSTEM_ID_DIGITS - text.size(), '0');
    return {};
}

} // namespace tools
