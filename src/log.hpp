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
#include <type_traits>

/** @file The two log styles.
 *
 *  The call site is taken by default arguments: `__builtin_FUNCTION` gives the
 *  unqualified name ("operator()" inside a lambda), which
 *  std::source_location does not. */

namespace velmora
{

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
 *  It is collected and given to std::cerr at once. Written unformatted, so
 *  that neither the flags nor the locale that the process has set on
 *  std::cerr change a line, nor a line them; and without allocating, so that
 *  it can be written when memory is out. */
inline void cerrLine(int line, std::initializer_list<std::string_view> parts)
{
    // Filled as far as it is used.
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init)
    std::array<char, 512> buffer;
    std::size_t used = 0;
    const auto drain = [&buffer, &used]
    {
        std::cerr.write(buffer.data(), static_cast<std::streamsize>(used));
        used = 0;
    };
    const auto append = [&](std::string_view text)
    {
        if (text.size() > buffer.size() - used)
        {
            drain();
        }
        if (text.size() > buffer.size())
        {
            std::cerr.write(text.data(),
                            static_cast<std::streamsize>(text.size()));
            return;
        }
        used += text.copy(buffer.data() + used, text.size());
    };
    append("Line: ");
    append(Decimal(line));
    for (const std::string_view part : parts)
    {
        append(part);
    }
    append("\n");
    drain();
    // Usually the stream has done so already, after the write.
    if ((std::cerr.flags() & std::ios::unitbuf) == 0)
    {
        std::cerr.flush();
    }
}

inline void cerrFailure(int line = __builtin_LINE())
{
    cerrLine(line, {" [FAILURE]"});
}

inline void cerrSuccess(int line = __builtin_LINE())
{
    cerrLine(line, {" [SUCCESS]"});
}

/** @param label the logged expression's text, written out, and ": " */
inline void cerrInfo(std::string_view label, std::string_view value,
                     int line = __builtin_LINE())
{
    cerrLine(line, {" [INFO ", label, value, "]"});
}

/** Library name functions may have no name to give. */
inline void cerrInfo(std::string_view label, const char* value,
                     int line = __builtin_LINE())
{
    cerrInfo(label, std::string_view(value != nullptr ? value : "(none)"),
             line);
}

template <std::integral Number>
void cerrInfo(std::string_view label, Number value, int line = __builtin_LINE())
{
    cerrInfo(label, std::string_view(Decimal(value)), line);
}

/** The call site of a stderr-style line; calling it writes the line. */
class StderrLine
{
  public:
    StderrLine(const char* level, const char* function, int line) :
        level_(level), function_(function), line_(line)
    {
    }

    void operator()(const char* format, ...) const
        __attribute__((format(printf, 2, 3)))
    {
        std::fprintf(stderr, "%s: %s.%d: ", level_, function_, line_);
        std::va_list arguments;
        va_start(arguments, format);
        std::vfprintf(stderr, format, arguments);
        va_end(arguments);
        std::fputc('\n', stderr);
    }

    /** For the one message that names its own line. */
    int line() const { return line_; }

  private:
    const char* level_;
    const char* function_;
    int line_;
};

inline StderrLine stderrFailure(const char* function = __builtin_FUNCTION(),
                                int line = __builtin_LINE())
{
    return {"FAILURE", function, line};
}

inline StderrLine stderrInfo(const char* function = __builtin_FUNCTION(),
                             int line = __builtin_LINE())
{
    return {"INFO", function, line};
}

inline StderrLine stderrSuccess(const char* function = __builtin_FUNCTION(),
                                int line = __builtin_LINE())
{
    return {"SUCCESS", function, line};
}

} // namespace velmora
