#include "error.hpp"

#include <locale.h>

#include <algorithm>
#include <cerrno>
#include <cwchar>
#include <cwctype>
#include <system_error>

namespace tools
{
namespace
{

/** The system's library prints them; they turn the reading direction. */
constexpr std::wstring_view BIDIRECTIONAL_CONTROLS =
    L"\u061C\u200E\u200F\u202A\u202B\u202C\u202D\u202E"
    L"\u2066\u2067\u2068\u2069";

/** The length of the printable character at the start of @p text, or 0. */
std::size_t printableLength(std::string_view text)
{
    wchar_t character = 0;
    std::mbstate_t state{};
    const std::size_t length =
        std::mbrtowc(&character, text.data(), text.size(), &state);
    const bool isPrintable =
        length <= text.size() &&
        std::iswprint(static_cast<std::wint_t>(character)) != 0 &&
        BIDIRECTIONAL_CONTROLS.find(character) == std::wstring_view::npos;
    return isPrintable ? length : 0;
}

} // namespace

void useOwnLocale()
{
    [[maybe_unused]] static const locale_t before =
        uselocale(newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t{}));
}

std::string hexadecimal(std::string_view bytes)
{
    constexpr std::string_view DIGITS = "0123456789abcdef";
    std::string text;
    for (const char c : bytes)
    {
        const auto byte = static_cast<unsigned char>(c);
        text += {DIGITS[byte >> 4], DIGITS[byte & 0xF]};
    }
    return text;
}

std::string printable(std::string_view text)
{
    useOwnLocale();
    std::string result;
    while (!text.empty())
    {
        const std::size_t length = printableLength(text);
        if (length == 0)
        {
            result += "\\x" + hexadecimal(text.substr(0, 1));
        }
        result += text.substr(0, length);
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return result;
}

Error systemError(std::string_view subject)
{
    const int number = errno;
    useOwnLocale();
    return {subject, std::generic_category().message(number)};
}

} // namespace tools
