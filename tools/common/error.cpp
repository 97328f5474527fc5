#include "error.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <system_error>

namespace tools
{
namespace
{

struct Range
{
    char32_t first;
    char32_t last;
};

constexpr std::array UNPRINTABLE{
    Range{0x0000, 0x001F}, // C0
    Range{0x007F, 0x009F}, // DEL, C1
    Range{0x061C, 0x061C}, // bidirectional controls, also below
    Range{0x200E, 0x200F},
    Range{0x2028, 0x202E}, // with the separators of lines and paragraphs
    Range{0x2066, 0x2069},
    Range{0xD800, 0xDFFF}, // surrogates
};

/** The smallest code point for each length in UTF-8. */
constexpr std::array<char32_t, 5> SMALLEST{0, 0, 0x80, 0x800, 0x10000};
constexpr char32_t LARGEST = 0x10FFFF;

bool isPrintable(char32_t character)
{
    return std::ranges::none_of(
        UNPRINTABLE, [character](const Range& range)
        { return character >= range.first && character <= range.last; });
}

/** The length of the printable character at the start of @p text, or 0. */
std::size_t printableLength(std::string_view text)
{
    const auto first = static_cast<unsigned char>(text.front());
    if (first < 0x80)
    {
        return isPrintable(first) ? 1 : 0;
    }
    const auto length = static_cast<std::size_t>(std::countl_one(first));
    if (length < 2 || length >= SMALLEST.size() || length > text.size())
    {
        return 0;
    }
    char32_t character = first & (0x7FU >> length);
    for (const char c : text.substr(1, length - 1))
    {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >> 6 != 2)
        {
            return 0;
        }
        character = character << 6 | (byte & 0x3FU);
    }
    const bool isValid = character >= SMALLEST[length] && character <= LARGEST;
    return isValid && isPrintable(character) ? length : 0;
}

} // namespace

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
    std::string result;
    result.reserve(text.size());
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
    return {subject, std::generic_category().message(errno)};
}

} // namespace tools
