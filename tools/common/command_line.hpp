#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace tools
{

/** Makes each complaint about the command line one line that starts with the
 *  name of @p app. */
void setUpComplaints(CLI::App& app);

/** Parses the arguments.
 *
 *  @throws CLI::ParseError when they are wrong, or ask for a text */
void parse(CLI::App& app, int argc, char** argv);

/** Prints what a parse has ended with: a help text, the version, or what is
 *  wrong.
 *
 *  @return exit status
 *  @throws Error when it cannot be printed */
int endParse(const CLI::App& app, const CLI::ParseError& error);

/** Brings a system's identifier into the form that systems show: four
 *  hexadecimal digits, upper case.
 *
 *  @return what is wrong with it, or empty */
std::string normaliseSystemId(std::string& text);

} // namespace tools
