#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace pack
{

/** The text on one line of plain ASCII: names and values come from outside,
 *  and must not move a terminal's cursor or forge a second line. */
std::string printable(std::string_view text);

/** What went wrong, and with what: the one line that the user sees. */
class Error : public std::runtime_error
{
  public:
    Error(std::string_view subject, std::string_view what) :
        std::runtime_error(printable(subject) + ": " + printable(what))
    {
    }
};

/** An error that errno explains. */
Error systemError(std::string_view subject);

void warn(std::string_view subject, std::string_view what);

} // namespace pack
