#include "command_line.hpp"

#include "error.hpp"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdlib>
#include <numeric>
#include <utility>
#include <vector>

namespace tools
{
namespace
{

/** In all tools. */
constexpr int WRONG_USAGE = 2;
constexpr std::size_t SYSTEM_ID_DIGITS = 4;

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

std::string complaint(const CLI::App* app, const CLI::Error& error)
{
    return app->get_name() + ": " + printable(error.what()) +
           " (--help tells more)\n";
}

} // namespace

void setUpComplaints(CLI::App& app) { app.failure_message(complaint); }

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
        return app.exit(error) == 0 ? EXIT_SUCCESS : WRONG_USAGE;
    }
    // CLI11 says only that a command is missing.
    const CLI::App* const nearest = *std::ranges::min_element(
        commands, {}, [&rest](const CLI::App* each)
        { return distance(rest[0], each->get_name()); });
    const bool isOption = rest[0].starts_with('-');
    app.exit(CLI::ValidationError(
        std::string("there is no ") + (isOption ? "option " : "command ") +
        rest[0] + (isOption ? "" : "; the nearest is " + nearest->get_name())));
    return WRONG_USAGE;
}

std::string normaliseSystemId(std::string& text)
{
    const bool isNumber =
        !text.empty() && std::ranges::all_of(text, [](unsigned char c)
                                             { return std::isxdigit(c) != 0; });
    if (!isNumber || text.size() > SYSTEM_ID_DIGITS)
    {
        return (isNumber ? "larger than FFFF: "
                         : "not a number of 1 to 4 hexadecimal digits: ") +
               text;
    }
    std::ranges::transform(text, text.begin(), [](unsigned char c)
                           { return static_cast<char>(std::toupper(c)); });
    text.insert(0, SYSTEM_ID_DIGITS - text.size(), '0');
    return {};
}

} // namespace tools
