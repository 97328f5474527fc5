#include "log_lines.hpp"

#include "common/error.hpp"

#include <nlohmann/json.hpp>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <ctime>
#include <map>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace velmora::front
{

namespace
{

/** What a longer line or entry has behind it is cut off; in bytes. */
constexpr std::size_t MAX_LINE = 65536;
/** Of a log when it is unpacked; in bytes. */
constexpr std::size_t MAX_LOG = std::size_t{256} << 20;
constexpr std::string_view GZIP_MAGIC = "\x1f\x8b";
/** inflateInit2() takes gzip's data then. */
constexpr int GZIP_WINDOW = MAX_WBITS + 16;
constexpr std::size_t DIGITS_OF_MICROSECONDS = 6;

/** The fields of an entry that are looked at. */
constexpr std::array FIELDS{
    "MESSAGE", "_PID", "_BOOT_ID", "SYSLOG_IDENTIFIER", "__REALTIME_TIMESTAMP",
    "log"};

/** In front of the fields of "-o verbose". */
constexpr std::string_view MARGIN = "    ";
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

/** Whether it can be the end of a time, such as "04:10:31" or "[12.345678]". */
bool isLikeTime(std::string_view word)
{
    return word.ends_with(']') || word.find(':') < word.size() ||
           (word.find_first_not_of("0123456789.") >= word.size() &&
            std::ranges::count(word, '.') < 2);
}

/** "bmc daemon[412]" of "Nov 25 04:10:31 bmc daemon[412]: ", or empty. A log
 *  can be without the machine's name. */
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
    const auto name = prefix.rfind(' ') + 1;
    const auto host = name < 2 ? 0 : prefix.rfind(' ', name - 2) + 1;
    const auto word = prefix.substr(host, name - std::min(name, host + 1));
    return prefix.substr(isLikeTime(word) ? name : host);
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

    /** Takes what follows, whole lines or not. */
    void take(std::string_view text);
    /** @return whether every entry was whole */
    bool finish();
    /** Of all so far, in bytes. */
    std::size_t size() const { return size_; }

  private:
    void takeLine(std::string_view rawLine);
    /** Hands on an entry that has come to its end. */
    void takeEntry();
    void takePlain(std::string_view line) const;
    void takeObject(const std::string& text);
    void takeField(std::string_view name, std::string_view value);

    const std::function<void(const LogLine&)>& sink_;
    std::size_t size_ = 0;
    std::string line_;
    /** The lines of an object of "-o json-pretty" that has begun. */
    std::string object_;
    bool hasEntries_ = false;
    /** Whether an entry was cut off. */
    bool isBroken_ = false;
    /** Whether an entry of "-o verbose" has begun. */
    bool isInEntry_ = false;
    std::map<std::string, std::string, std::less<>> fields_;
};

void Splitter::take(std::string_view text)
{
    size_ += text.size();
    while (!text.empty())
    {
        const auto end = std::min(text.find('\n'), text.size());
        line_ += text.substr(0, std::min(end, MAX_LINE - line_.size()));
        text.remove_prefix(end);
        if (!text.empty())
        {
            text.remove_prefix(1);
            takeLine(line_);
            line_.clear();
        }
    }
}

bool Splitter::finish()
{
    if (!line_.empty())
    {
        takeLine(line_);
    }
    isBroken_ |=
        !object_.empty() || (isInEntry_ && !fields_.contains("MESSAGE"));
    takeEntry();
    // In a log without entries, another program's line may look like one.
    return !hasEntries_ || !isBroken_;
}

void Splitter::takeLine(std::string_view rawLine)
{
    const std::string line = cleaned(rawLine);
    const bool isIndented = line.starts_with('\t') || line.starts_with(' ');
    std::string object = std::exchange(object_, {});
    if (line == "{")
    {
        isBroken_ |= !object.empty();
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
    else if (isInEntry_ && line.starts_with(MARGIN))
    {
        const auto field = std::string_view(line).substr(MARGIN.size());
        const auto end = std::min(field.find('='), field.size() - 1);
        takeField(field.substr(0, end), field.substr(end + 1));
    }
    else
    {
        isBroken_ |= !object.empty();
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
    // A process writes our lines whole. One behind other words is quoted, as
    // by the parser ("PATH: line 2: …") or the extractor ("error:  …").
    const auto before = prefix.substr(0, prefix.find_last_not_of(' ') + 1);
    const bool isQuoted =
        prefix.find('\'') < prefix.size() ||
        (process.empty() ? before.find(": ") < before.size()
                         : !prefix.substr(0, start - 2).ends_with(process));
    sink_({process, prefix.substr(0, prefix.find_last_not_of(" :") + 1),
           isQuoted ? std::string_view() : line.substr(start)});
}

void Splitter::takeObject(const std::string& text)
{
    takeEntry();
    const auto object = nlohmann::json::parse(text, nullptr, false);
    isBroken_ |= object.is_discarded();
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
        hasEntries_ = true;
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
    // Another boot gives the same number to another process.
    const std::string key = process + fields["_BOOT_ID"];
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
            sink_({key, origin, line});
        }
    }
}

/** Unpacks what gzip has packed, in one go or in several. */
class Unpacker
{
  public:
    Unpacker() { inflateInit2(&stream_, GZIP_WINDOW); }
    Unpacker(const Unpacker&) = delete;
    Unpacker& operator=(const Unpacker&) = delete;
    ~Unpacker() { inflateEnd(&stream_); }

    /** @return whether it can be what gzip makes */
    bool take(std::span<char> packed, Splitter& splitter);
    /** Whether nothing is missing. */
    bool isAtEnd() const { return status_ == Z_STREAM_END; }

  private:
    z_stream stream_{};
    int status_ = Z_OK;
    std::array<char, MAX_LINE> text_{};
};

bool Unpacker::take(std::span<char> packed, Splitter& splitter)
{
    stream_.next_in = reinterpret_cast<Bytef*>(packed.data());
    stream_.avail_in = static_cast<uInt>(packed.size());
    do
    {
        if (isAtEnd())
        {
            inflateReset(&stream_);
        }
        stream_.next_out = reinterpret_cast<Bytef*>(text_.data());
        stream_.avail_out = static_cast<uInt>(text_.size());
        status_ = inflate(&stream_, Z_NO_FLUSH);
        splitter.take({text_.data(), text_.size() - stream_.avail_out});
    } while (status_ == Z_OK || (isAtEnd() && stream_.avail_in > 0));
    // It cannot go on without more.
    return isAtEnd() || status_ == Z_BUF_ERROR;
}

} // namespace

void readLog(const tools::FileDescriptor& file, const std::string& name,
             const std::function<void(const LogLine&)>& sink)
{
    Splitter splitter(sink);
    Unpacker unpacker;
    std::optional<bool> isPacked;
    bool isSound = true;
    std::vector<char> piece(MAX_LINE);
    ssize_t count = 0;
    while (isSound && splitter.size() <= MAX_LOG &&
           (count = read(file.get(), piece.data(), piece.size())) > 0)
    {
        const std::string_view text(piece.data(),
                                    static_cast<std::size_t>(count));
        isPacked = isPacked.value_or(text.starts_with(GZIP_MAGIC));
        if (*isPacked)
        {
            isSound =
                unpacker.take(std::span(piece).first(text.size()), splitter);
        }
        else
        {
            splitter.take(text);
        }
    }
    if (count < 0)
    {
        throw tools::systemError(name);
    }
    const bool isWhole = splitter.finish();
    if (splitter.size() > MAX_LOG)
    {
        throw tools::Error(name, "it has more than 256 MiB: cut it, such as "
                                 "with journalctl --since");
    }
    if (isPacked.value_or(false) && !unpacker.isAtEnd())
    {
        throw tools::Error(name, "its gzip data is damaged, ends early, or has "
                                 "something else behind it");
    }
    if (!isWhole)
    {
        throw tools::Error(name, "an entry of it is cut off, or has more than "
                                 "64 KiB: take the log anew");
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
