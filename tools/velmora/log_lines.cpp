#include "log_lines.hpp"

#include "common/error.hpp"
#include "log_values.hpp"

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>

namespace velmora::front
{

namespace
{

/** What a longer line or entry has behind it is cut off; in bytes. */
constexpr std::size_t MAX_LINE = 65536;
/** Of a log when it is unpacked; in bytes. */
constexpr std::size_t MAX_LOG = std::size_t{256} << 20;
/** A process is named within so many bytes. */
constexpr std::size_t MAX_PREFIX = 256;
constexpr std::size_t DIGITS_OF_MICROSECONDS = 6;
constexpr const char* DIGITS = "0123456789";

using GzipFile = tools::Handle<gzFile_s, gzclose>;

/** Without the blanks behind it and what sets a terminal's colours. */
std::string cleaned(std::string_view text)
{
    std::string plain;
    while (!text.empty())
    {
        const auto start = std::min(text.find("\x1b["), text.size());
        plain += text.substr(0, start);
        text.remove_prefix(start);
        const auto end = text.find_first_not_of("0123456789;:", 2);
        text.remove_prefix(end < text.size() ? end + 1 : text.size());
    }
    plain.erase(plain.find_last_not_of(" \t\r") + 1);
    return plain;
}

/** Where the text begins behind "daemon[412]: ", or 0. */
std::size_t endOfPrefix(std::string_view line)
{
    const auto end = line.substr(0, MAX_PREFIX).find("]: ");
    const auto start = line.substr(0, end).find_last_not_of(DIGITS);
    return end != std::string_view::npos && start != std::string_view::npos &&
                   line[start] == '['
               ? end + 3
               : 0;
}

/** journalctl writes bytes where a text is no UTF-8 or has colours. */
std::string textOf(const nlohmann::json& value)
{
    std::string text = value.is_string() ? value.get<std::string>() : "";
    for (const auto& byte : value.is_array() ? value : nlohmann::json::array())
    {
        text += byte.is_number_unsigned()
                    ? static_cast<char>(byte.get<unsigned>())
                    : '?';
    }
    return text;
}

/** Takes each line for what it is in the form of the log. */
class Splitter
{
  public:
    explicit Splitter(const std::function<void(const LogLine&)>& sink) :
        sink_(sink)
    {
    }

    void take(std::string_view rawLine);
    /** Hands on an entry that has come to its end. */
    void takeEntry();

  private:
    enum class Form : std::uint8_t
    {
        UNDECIDED,
        PLAIN,
        JSON,
        ENTRIES,
    };

    static Form formOf(std::string_view line);
    void takeJson(std::string_view line);
    void parse(std::string_view object);
    void takeField(std::string_view line);

    const std::function<void(const LogLine&)>& sink_;
    Form form_ = Form::UNDECIDED;
    /** The lines of an object that has begun. */
    std::string object_;
    /** The fields of an entry that has begun. */
    std::map<std::string, std::string> entry_;
};

/** Of the first line; what journalctl itself says stands behind two dashes. */
Splitter::Form Splitter::formOf(std::string_view line)
{
    return line.starts_with('{') ? Form::JSON
           : line.starts_with("__CURSOR=") ||
                   (line.ends_with(']') &&
                    line.find(" [s=") != std::string_view::npos)
               ? Form::ENTRIES
           : line.empty() || line.starts_with("-- ") ? Form::UNDECIDED
                                                     : Form::PLAIN;
}

void Splitter::take(std::string_view rawLine)
{
    // "-o json-seq" and "-o json-sse" have something in front of an object.
    for (const std::string_view start : {"\x1e", "data: "})
    {
        rawLine.remove_prefix(rawLine.starts_with(start) ? start.size() : 0);
    }
    const std::string line = cleaned(rawLine);
    // Later lines do not change it: they may quote a package.
    form_ = form_ == Form::UNDECIDED ? formOf(line) : form_;
    if (form_ == Form::JSON)
    {
        takeJson(line);
    }
    else if (form_ == Form::ENTRIES)
    {
        takeField(line);
    }
    else
    {
        const std::size_t end = endOfPrefix(line);
        const auto origin =
            std::string_view(line).substr(0, std::max<std::size_t>(end, 2) - 2);
        sink_({origin.substr(origin.rfind(' ') + 1), origin,
               std::string_view(line).substr(end)});
    }
}

/** One object stands in one line, or its braces in lines of their own. */
void Splitter::takeJson(std::string_view line)
{
    if (line.starts_with('{') || object_.size() > MAX_LINE)
    {
        object_.clear();
    }
    object_ += line;
    if (line != "{" && line.ends_with('}') &&
        (line == "}" || line.starts_with('{')))
    {
        parse(std::exchange(object_, {}));
    }
}

void Splitter::parse(std::string_view object)
{
    const auto json = nlohmann::json::parse(object, nullptr, false);
    for (const char* name : {"MESSAGE", "_PID", "SYSLOG_IDENTIFIER",
                             "__REALTIME_TIMESTAMP", "log"})
    {
        if (json.is_object() && json.contains(name))
        {
            entry_[name] = textOf(json[name]);
        }
    }
    takeEntry();
}

/** A field has a line, in "-o verbose" behind blanks. */
void Splitter::takeField(std::string_view line)
{
    if (formOf(line) == Form::ENTRIES)
    {
        takeEntry();
    }
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    const auto name = line.substr(0, line.find('='));
    if (name.size() < line.size() && entry_.size() < MAX_PREFIX)
    {
        entry_[std::string(name)] = line.substr(name.size() + 1);
    }
}

void Splitter::takeEntry()
{
    auto fields = std::exchange(entry_, {});
    const std::string process =
        fields["_PID"].empty()
            ? ""
            : fields["SYSLOG_IDENTIFIER"] + '[' + fields["_PID"] + ']';
    std::string& time = fields["__REALTIME_TIMESTAMP"];
    time.erase(time.size() - std::min(time.size(), DIGITS_OF_MICROSECONDS));
    const std::string origin = date(time) + (time.empty() ? "" : " ") + process;
    const std::string text = fields["MESSAGE"] + fields["log"];
    std::string_view rest = text;
    while (!rest.empty())
    {
        const auto line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        sink_({process, origin, cleaned(line)});
    }
}

} // namespace

void readLog(const tools::FileDescriptor& file, const std::string& name,
             const std::function<void(const LogLine&)>& sink)
{
    // What is not compressed is read as it is.
    const int copy = fcntl(file.get(), F_DUPFD_CLOEXEC, 0);
    const GzipFile input(gzdopen(copy, "rb"));
    if (input == nullptr)
    {
        close(copy);
        throw tools::systemError(name);
    }
    std::array<char, 65536> piece{};
    std::string line;
    Splitter splitter(sink);
    int size = 0;
    std::size_t total = 0;
    while (total <= MAX_LOG &&
           (size = gzread(input.get(), piece.data(), piece.size())) > 0)
    {
        std::string_view rest(piece.data(), static_cast<std::size_t>(size));
        total += rest.size();
        while (!rest.empty())
        {
            const auto part = rest.substr(0, rest.find('\n'));
            line += part.substr(0, MAX_LINE - line.size());
            rest.remove_prefix(part.size());
            if (!rest.empty())
            {
                rest.remove_prefix(1);
                splitter.take(line);
                line.clear();
            }
        }
    }
    splitter.take(line);
    splitter.takeEntry();
    int error = Z_OK;
    gzerror(input.get(), &error);
    if (error == Z_ERRNO)
    {
        throw tools::systemError(name);
    }
    if (error != Z_OK || total > MAX_LOG)
    {
        throw tools::Error(
            name, error != Z_OK
                      ? "its gzip data is damaged, or ends early"
                      : "it has more than 256 MiB: cut it, such as with "
                        "journalctl --since");
    }
}

} // namespace velmora::front
