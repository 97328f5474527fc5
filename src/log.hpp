#pragma once

#include <array>
#include <charconv>
#include <concepts>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <initializer_list>
#include <iostream>
#include <string_view>

/** @file The two log styles, and what stands behind their lines.
 *
 *  A line is known by its number alone, so a number must stand for one
 *  statement in the whole library: each source unit has a block of a thousand,
 *  which it defines as LOG_BLOCK, and the number is that plus the source line.
 *
 *  What a failure or a success means is not written to the log. It stands
 *  where the line is logged, and goes from there into the section
 *  ".velmora.causes" of the library, as "FILE BLOCK LINE KIND TEXT" with a NUL
 *  behind it; in the stderr style with a newline and the message's format
 *  between. The kind is
 *  - "cause" of a failure;
 *  - "echo:SOURCE" where only a failure of that source is passed on;
 *  - "pardon:SOURCE" where nothing is refused for a failure of that source;
 *  - "note" of a failure for which nothing is refused;
 *  - "success" of what judges, "answer" of what only answers. */

#ifndef LOG_BLOCK
#error "LOG_BLOCK must be defined before log.hpp is included"
#endif

#define LOG_TEXT_OF(argument) #argument
#define LOG_TEXT(argument) LOG_TEXT_OF(argument)

#define LOG_NUMBER (LOG_BLOCK + __LINE__)

/** Not for templates and inline functions: GCC cannot place their constants in
 *  a named section. */
#define LOG_RECORD(kind, text)                                                 \
    static_assert(__LINE__ < 1000 && sizeof("" text) > 1);                     \
    [[gnu::section(".velmora.causes"), gnu::used,                              \
      gnu::retain]] static const char record[] = __FILE_NAME__                 \
        " " LOG_TEXT(LOG_BLOCK) " " LOG_TEXT(__LINE__) " " kind " " text

/** @name The cerr style
 *  @param source literal name of the source whose failure it is, without .cpp
 *  @param cause, what literal text for the record */
///@{
#define LOG_CERR(level, kind, text)                                            \
    do                                                                         \
    {                                                                          \
        LOG_RECORD(kind, text);                                                \
        velmora::writeLine(LOG_NUMBER, {" [" level "]"});                      \
    } while (false)
#define LOG_FAILURE(cause) LOG_CERR("FAILURE", "cause", cause)
#define LOG_ECHO(source, what) LOG_CERR("FAILURE", "echo:" source, what)
#define LOG_NOTE(what) LOG_CERR("FAILURE", "note", what)
#define LOG_SUCCESS(what) LOG_CERR("SUCCESS", "success", what)
#define LOG_ANSWER(what) LOG_CERR("SUCCESS", "answer", what)
/** @param label the logged expression's text, written out, and ": " */
#define LOG_INFO(label, value) velmora::writeInfo(LOG_NUMBER, label, value)

/** Number of a FAILURE line that a child process writes by itself. */
#define LOG_CHILD_FAILURE(cause)                                               \
    []                                                                         \
    {                                                                          \
        LOG_RECORD("cause", cause);                                            \
        return LOG_NUMBER;                                                     \
    }()
///@}

/** @name The stderr style
 *  @param source, cause, what as above
 *  @param ... the line's own message: a printf format and its arguments, which
 *         may name the line's number, LINE_NUMBER: compilers differ in which
 *         line an argument stands on */
///@{
#define LOG_FORMAT(format, ...) format
#define PRINT_STDERR(level, kind, text, ...)                                   \
    do                                                                         \
    {                                                                          \
        LOG_RECORD(kind, text "\n" LOG_FORMAT(__VA_ARGS__));                   \
        [[maybe_unused]] constexpr unsigned LINE_NUMBER = LOG_NUMBER;          \
        PRINT_LINE(level, __VA_ARGS__);                                        \
    } while (false)
#define PRINT_FAILURE(cause, ...)                                              \
    PRINT_STDERR("FAILURE", "cause", cause, __VA_ARGS__)
#define PRINT_ECHO(source, what, ...)                                          \
    PRINT_STDERR("FAILURE", "echo:" source, what, __VA_ARGS__)
#define PRINT_PARDON(source, what, ...)                                        \
    PRINT_STDERR("FAILURE", "pardon:" source, what, __VA_ARGS__)
#define PRINT_NOTE(what, ...) PRINT_STDERR("FAILURE", "note", what, __VA_ARGS__)
#define PRINT_SUCCESS(what, ...)                                               \
    PRINT_STDERR("SUCCESS", "success", what, __VA_ARGS__)
#define PRINT_ANSWER(what, ...)                                                \
    PRINT_STDERR("SUCCESS", "answer", what, __VA_ARGS__)
#define PRINT_INFO(...) PRINT_LINE("INFO", __VA_ARGS__)
#define PRINT_LINE(level, ...)                                                 \
    velmora::printLine(level, OPERATION != nullptr ? OPERATION : __func__,     \
                       LOG_NUMBER, __VA_ARGS__)
///@}

namespace velmora
{

/** Name in the lines of the stderr style; null for that of the function that
 *  logs. A class whose functions are the steps of an operation has a constant
 *  of this name, with the operation's. */
inline constexpr const char* OPERATION = nullptr;

/** An integer as decimal text, whatever the locale and stream flags. */
class Decimal
{
  public:
    template <std::integral Number>
    explicit Decimal(Number value)
    {
        const auto result = std::to_chars(
            digits_.data(), digits_.data() + digits_.size(), value);
        size_ = static_cast<std::size_t>(result.ptr - digits_.data());
    }

    operator std::string_view() const { return {digits_.data(), size_}; }

  private:
    std::array<char, 24> digits_{};
    std::size_t size_;
};

/** Writes one line of the cerr style, of the parts behind its number.
 *
 *  A line goes to std::cerr in one piece where it fits the buffer. It is
 *  written unformatted, so that the flags and the locale that the process has
 *  set on std::cerr do not change it. Nothing is allocated, so that it can be
 *  written when memory is out. */
inline void writeLine(int number, std::initializer_list<std::string_view> parts)
{
    // Only the bytes before `used` are read, and they have been written.
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init)
    std::array<char, 512> buffer;
    std::size_t used = 0;
    const auto append = [&](std::string_view text)
    {
        while (!text.empty())
        {
            const std::size_t count =
                text.copy(buffer.data() + used, buffer.size() - used);
            used += count;
            text.remove_prefix(count);
            if (used == buffer.size())
            {
                std::cerr.write(buffer.data(),
                                static_cast<std::streamsize>(used));
                used = 0;
            }
        }
    };
    append("Line: ");
    append(Decimal(number));
    for (const std::string_view part : parts)
    {
        append(part);
    }
    append("\n");
    std::cerr.write(buffer.data(), static_cast<std::streamsize>(used));
    std::cerr.flush();
}

inline void writeInfo(int number, std::string_view label,
                      std::string_view value)
{
    writeLine(number, {" [INFO ", label, value, "]"});
}

/** GPGME gives null for an algorithm that it does not know. */
inline void writeInfo(int number, std::string_view label, const char* value)
{
    writeInfo(number, label,
              std::string_view(value != nullptr ? value : "(none)"));
}

template <std::integral Number>
void writeInfo(int number, std::string_view label, Number value)
{
    writeInfo(number, label, std::string_view(Decimal(value)));
}

/** Writes one line of the stderr style. */
[[gnu::format(printf, 4, 5)]] inline void printLine(const char* level,
                                                    const char* operation,
                                                    int number,
                                                    const char* format, ...)
{
    std::fprintf(stderr, "%s: %s.%d: ", level, operation, number);
    std::va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
    std::fputc('\n', stderr);
}

} // namespace velmora
