#include "log_lines.hpp"

#include "common/error.hpp"

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <ctime>
#include <map>
#include <utility>

namespace velmora::front
{

namespace
{

/** What a longer line or entry has behind it is cut off; in bytes. */
constexpr std::size_t MAX_LINE = 65536;
/** Of a log when it is unpacked; in bytes. */
constexpr z_off_t MAX_LOG = z_off_t{256} << 20;
constexpr std::size_t DIGITS_OF_MICROSECONDS = 6;

/** The fields of an entry that are looked at. */
constexpr std::array FIELDS{"MESSAGE", "_PID", "SYSLOG_IDENTIFIER",
                            "__REALTIME_TIMESTAMP", "log"};

using GzipFile = tools::Handle<gzFile_s, gzclose>;

/** A log that was copied from memory has NULs. */
constexpr std::string_view BLANKS(" \t\r\n\0", 5);

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
    plain.erase(plain.find_last_not_of(BLANKS) + 1);
    return plain;
}

/** Where the text begins, behind whatever prefix. */
std::size_t startOf(std::string_view line)
{
    std::size_t start = std::string_view::npos;
    for (const char* word : {"Line: ", "FAILURE: ", "SUCCESS: ", "INFO: "})
    {
        start = std::min(start, line.find(word));
    }
    // The last one: a host can have the name.
    start = start < line.size() ? start : line.rfind("velmora ");
    return start < line.size() && start > 0 && line[start - 1] == ' ' ? start
                                                                      : 0;
}

/** "daemon[412]" of "Nov 25 04:10:31 bmc daemon[412]: ", or empty. */
std::string_view processIn(std::string_view prefix)
{
    const auto end = prefix.find("]: ");
    const auto start = prefix.substr(0, end).find_last_not_of("0123456789");
    if (end == std::string_view::npos || start == std::string_view::npos ||
        prefix[start] != '[')
    {
        return {};
    }
    prefix = prefix.substr(0, end + 1);
    return prefix.substr(prefix.rfind(' ') + 1);
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

/** Takes each line for what it looks like. */
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
    void takePlain(std::string_view line) const;
    void takeObject(const std::string& text);
    void takeField(std::string_view name, std::string_view value);

    const std::function<void(const LogLine&)>& sink_;
    /** The lines of an object of "-o json-pretty" that has begun. */
    std::string object_;
    /** Whether an entry of "-o verbose" has begun. */
    bool isInEntry_ = false;
    std::map<std::string, std::string, std::less<>> fields_;
};

void Splitter::take(std::string_view rawLine)
{
    const std::string line = cleaned(rawLine);
    const bool isIndented = line.starts_with('\t') || line.starts_with(' ');
    std::string object = std::exchange(object_, {});
    if (line == "{")
    {
        object_ = line;
    }
    else if (isIndented && !object.empty() && object.size() < MAX_LINE)
    {
        object_ = std::move(object);
        object_ += line;
    }
    else if (line.starts_with('{') || (line == "}" && !object.empty()))
    {
        takeObject(object + line);
    }
    else if (isInEntry_ && line.starts_with("    "))
    {
        const auto end = std::min(line.find('='), line.size() - 1);
        takeField(std::string_view(line).substr(4, end - 4),
                  std::string_view(line).substr(end + 1));
    }
    else
    {
        takeEntry();
        isInEntry_ = line.ends_with(']') && line.find(" [s=") < line.size();
        takePlain(line);
    }
}

void Splitter::takePlain(std::string_view line) const
{
    const auto start = startOf(line);
    const auto prefix = line.substr(0, start);
    const auto process = processIn(prefix);
    // A process writes our lines whole: one behind other words is quoted.
    const bool isQuoted =
        !process.empty() && !prefix.substr(0, start - 2).ends_with(process);
    sink_({process, prefix.substr(0, prefix.find_last_not_of(" :") + 1),
           isQuoted ? std::string_view() : line.substr(start)});
}

void Splitter::takeObject(const std::string& text)
{
    takeEntry();
    const auto object = nlohmann::json::parse(text, nullptr, false);
    for (const char* name : FIELDS)
    {
        if (object.is_object() && object.contains(name))
        {
            takeField(name, textOf(object[name]));
        }
    }
    takeEntry();
}

void Splitter::takeField(std::string_view name, std::string_view value)
{
    if (std::ranges::find(FIELDS, name) != FIELDS.end())
    {
        fields_[std::string(name)] = value;
    }
}

void Splitter::takeEntry()
{
    isInEntry_ = false;
    if (fields_.empty())
    {
        return;
    }
    auto fields = std::exchange(fields_, {});
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
        const std::string line = cleaned(rest.substr(0, rest.find('\n')));
        rest.remove_prefix(std::min(rest.find('\n'), rest.size() - 1) + 1);
        if (process.empty())
        {
            takePlain(line);
        }
        else
        {
            sink_({process, origin, line});
        }
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
    gzbuffer(input.get(), MAX_LINE);
    std::array<char, MAX_LINE> buffer{};
    Splitter splitter(sink);
    z_off_t total = 0;
    bool isBegin = true;
    while (total <= MAX_LOG &&
           gzgets(input.get(), buffer.data(), buffer.size()) != nullptr)
    {
        // It tells the length even where a line has a NUL.
        const z_off_t end = gztell(input.get());
        const std::string_view piece(buffer.data(),
                                     static_cast<std::size_t>(end - total));
        total = end;
        if (isBegin)
        {
            splitter.take(piece);
        }
        isBegin = piece.ends_with('\n');
    }
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

std::string date(std::string_view seconds)
{
    long long number = 0;
    std::from_chars(seconds.data(), seconds.data() + seconds.size(), number);
    const auto time = static_cast<std::time_t>(number);
    std::tm parts{};
    if (time <= 0 || gmtime_r(&time, &parts) == nullptr)
    {
        return {};
    }
    std::array<char, 64> text{};
    return {text.data(), std::strftime(text.data(), text.size(),
                                       "%Y-%m-%d %H:%M:%S UTC", &parts)};
}

} // namespace velmora::front
