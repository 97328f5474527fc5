#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace tools
{

/** Whatever the user's locale, and whoever has set it: the system's reasons are
 *  in English, and texts are UTF-8, or ASCII where there is no such locale. */
void useOwnLocale();

/** The text without what would move a terminal's cursor, forge a second line
 *  or turn the reading direction: names and values come from outside. Control
 *  characters of both kinds (U+0000 and U+0080 onwards), line separators,
 *  bidirectional controls and bytes that are no UTF-8 become \xNN. */
std::string printable(std::string_view text);

/** Two lower-case digits for each byte. */
std::string hexadecimal(std::string_view bytes);

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

} // namespace tools
