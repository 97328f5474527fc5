#include "log_reader.hpp"

#include "common/error.hpp"

#include <cxxabi.h>
#include <gpgme.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <system_error>

namespace velmora::front
{

namespace
{

/** A longer line is cut: none that explains anything is longer. */
constexpr std::size_t MAX_LINE = 4096;
/** How a line of ours can begin. */
constexpr std::string_view STARTS = "LFSI";
/** Of each kind in one operation; of more, the last are kept. */
constexpr std::size_t MAX_ITEMS = 64;

using Meaning = std::pair<int, const char*>;

constexpr std::array EXTRACTOR_CODES{
    Meaning{1, "a warning"},
    Meaning{2, "a damaged archive"},
    Meaning{3, "a badly damaged archive"},
    Meaning{5, "an encrypted member, or out of memory"},
    Meaning{9, "not a ZIP file, or not there"},
    Meaning{11, "no member matched"},
    Meaning{50, "the disk is full, or a file cannot be made"},
    Meaning{51, "the archive ends early"},
    Meaning{81, "unknown compression, or an encrypted member"},
    Meaning{82, "encrypted member"},
    Meaning{127, "the extractor cannot be started"},
};

constexpr std::array SUMMARY_BITS{
    Meaning{GPGME_SIGSUM_VALID, "valid"},
    Meaning{GPGME_SIGSUM_GREEN, "good"},
    Meaning{GPGME_SIGSUM_RED, "bad"},
    Meaning{GPGME_SIGSUM_KEY_REVOKED, "key revoked"},
    Meaning{GPGME_SIGSUM_KEY_EXPIRED, "key expired"},
    Meaning{GPGME_SIGSUM_SIG_EXPIRED, "signature expired"},
    Meaning{GPGME_SIGSUM_KEY_MISSING, "key not there"},
    Meaning{GPGME_SIGSUM_SYS_ERROR, "error of the system"},
};

constexpr std::array VALIDITIES{"unknown",  "undefined", "never",
                                "marginal", "full",      "ultimate"};

long long toNumber(std::string_view text)
{
    long long number = -1;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

std::string asItIs(std::string_view text) { return std::string(text); }

std::string unlessZero(std::string_view text)
{
    return text == "0" ? "" : std::string(text);
}

std::string extractorStatus(std::string_view text)
{
    const int code = WEXITSTATUS(static_cast<int>(toNumber(text)));
    const auto known =
        std::ranges::find(EXTRACTOR_CODES, code, &Meaning::first);
    return "exit code " + std::to_string(code) +
           (known != EXTRACTOR_CODES.end() ? std::string(", ") + known->second
                                           : "");
}

std::string summary(std::string_view text)
{
    std::string words;
    for (const auto& [bit, meaning] : SUMMARY_BITS)
    {
        if ((toNumber(text) & bit) != 0)
        {
            words += (words.empty() ? "" : ", ") + std::string(meaning);
        }
    }
    return words.empty() ? "nothing (" + std::string(text) + ')' : words;
}

std::string validity(std::string_view text)
{
    const bool isKnown = text.size() == 1 && text[0] >= '0' && text[0] <= '5';
    return "the key's validity is " +
           (isKnown ? VALIDITIES.at(static_cast<std::size_t>(text[0] - '0'))
                    : std::string(text));
}

std::string gpgError(std::string_view text)
{
    return text == "0"
               ? ""
               : gpgme_strerror(static_cast<gpgme_error_t>(toNumber(text)));
}

std::string systemErrorText(std::string_view text)
{
    return std::generic_category().message(static_cast<int>(toNumber(text)));
}

/** A type's name as a program writes it. */
std::string typeName(std::string_view text)
{
    const std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(std::string(text).c_str(), nullptr, nullptr,
                            nullptr),
        std::free);
    return name != nullptr ? name.get() : std::string(text);
}

/** A value in a line: what stands in front of it, and what it means. */
struct Value
{
    std::string_view label;
    const char* name;
    /** Gives the empty text for what is not worth showing. */
    std::string (*decode)(std::string_view);
    bool isTelling = false;
};

constexpr std::array VALUES{
    Value{"pidUnzip: ", "forkResult", asItIs},
    Value{"pidStatus: ", "extractor", extractorStatus, true},
    Value{"gpgmeStrErr: ", "gpgmeError", asItIs, true},
    Value{"err: ", "gpgmeError", asItIs, true},
    Value{"signCount: ", "signature", asItIs},
    Value{"gpgme_strerror(gpgmeSig->status): ", "signatureStatus", asItIs,
          true},
    Value{"gpgmeSig->summary: ", "signatureSummary", summary},
    Value{"gpgmeSig->timestamp: ", "signatureMade", date},
    Value{"gpgmeSig->exp_timestamp: ", "signatureExpires", date},
    Value{"gpgmeSig->wrong_key_usage: ", "wrongKeyUsage", unlessZero},
    Value{"gpgmeSig->validity: ", "keyValidity", validity, true},
    Value{"gpgmeSig->validity_reason: ", "validityReason", gpgError},
    Value{"gpgme_hash_algo_name(gpgmeSig->hash_algo): ", "hashAlgorithm",
          asItIs},
    Value{"gpgme_pubkey_algo_name (gpgmeSig->pubkey_algo): ", "keyAlgorithm",
          asItIs},
    Value{"e.what(): ", "exception", asItIs, true},
    Value{"msg: ", "exceptionType", typeName, true},
    Value{"hexSystemIDStr: ", "thisSystem", asItIs},
    Value{"xmlXPathNodeNr: ", "systemsListed", asItIs},
    Value{"searchFound: ", "systemFound", asItIs},
    Value{"compID: ", "component", asItIs},
    Value{"sha256FromPkgXML: ", "expectedDigest", asItIs},
    Value{"sha256FromImage: ", "payloadDigest", asItIs},
    Value{"errstr[", "error", asItIs, true},
    Value{"errmsg[", "error", asItIs, true},
    Value{"strerr[", "error", asItIs, true},
    Value{"strtoll returned error[", "error", systemErrorText, true},
    Value{"timestamp =", "signingTime", date},
    Value{"Metadata algorithm is ", "algorithm", asItIs},
    Value{"Key length[", "keyBytes", asItIs},
};

template <typename Item>
void addBounded(std::vector<Item>& items, Item item)
{
    if (items.size() == MAX_ITEMS)
    {
        items.erase(items.begin());
    }
    items.push_back(std::move(item));
}

Site unknownSite(int number)
{
    return {"", number, 0, "",
            "nothing is known of line " + std::to_string(number)};
}

/** Takes @p start off the text, if it is there. */
bool skip(std::string_view& text, std::string_view start)
{
    const bool found = text.starts_with(start);
    text.remove_prefix(found ? start.size() : 0);
    return found;
}

} // namespace

std::string date(std::string_view seconds)
{
    const auto time = static_cast<std::time_t>(toNumber(seconds));
    std::tm parts{};
    if (time <= 0 || gmtime_r(&time, &parts) == nullptr)
    {
        return {};
    }
    std::array<char, 64> text{};
    return {text.data(), std::strftime(text.data(), text.size(),
                                       "%Y-%m-%d %H:%M:%S UTC", &parts)};
}

/** A line of the library. */
struct LogReader::Line
{
    enum class Level : std::uint8_t
    {
        NONE,
        FAILURE,
        SUCCESS,
        INFO,
    };

    Level level = Level::NONE;
    int number = 0;
    /** Whether it has the style that carries a message. */
    bool hasMessage = false;
    /** The message, or label and value. */
    std::string_view text;
    /** What a log daemon wrote in front. */
    std::string_view prefix;
};

/** A line of ours at the very start of @p text. */
std::optional<LogReader::Line> LogReader::parse(std::string_view text)
{
    using enum Line::Level;
    Line line;
    line.hasMessage = !skip(text, "Line: ");
    if (line.hasMessage)
    {
        line.level = skip(text, "FAILURE: ")   ? FAILURE
                     : skip(text, "SUCCESS: ") ? SUCCESS
                     : skip(text, "INFO: ")    ? INFO
                                               : NONE;
        // The operation's name ends at a dot.
        text.remove_prefix(std::min(text.find_first_of(" .") + 1, text.size()));
    }
    const auto [end, error] =
        std::from_chars(text.data(), text.data() + text.size(), line.number);
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    if (line.hasMessage)
    {
        line.level = skip(text, ": ") ? line.level : NONE;
    }
    else
    {
        line.level = text == " [FAILURE]"    ? FAILURE
                     : text == " [SUCCESS]"  ? SUCCESS
                     : skip(text, " [INFO ") ? INFO
                                             : NONE;
        text.remove_suffix(text.ends_with(']') ? 1 : 0);
        text = line.level == INFO ? text : std::string_view();
    }
    line.text = text;
    return error == std::errc() && line.level != NONE ? std::optional(line)
                                                      : std::nullopt;
}

/** The first line of ours in @p text, behind whatever prefix. */
std::optional<LogReader::Line> LogReader::find(std::string_view text)
{
    text.remove_suffix(text.ends_with('\r') ? 1 : 0);
    for (std::size_t at = text.find_first_of(STARTS);
         at != std::string_view::npos; at = text.find_first_of(STARTS, at + 1))
    {
        if (at > 0 && std::isalnum(static_cast<unsigned char>(text[at - 1])))
        {
            continue;
        }
        if (auto line = parse(text.substr(at)))
        {
            line->prefix = text.substr(0, at);
            line->prefix.remove_suffix(at - 1 -
                                       line->prefix.find_last_not_of(" :"));
            return line;
        }
    }
    return std::nullopt;
}

/** Decodes the values that a line carries. */
void LogReader::addDetails(Operation& operation, const Line& line)
{
    for (const Value& value : VALUES)
    {
        const std::size_t start = line.text.find(value.label);
        if (start == std::string_view::npos || (start > 0 && !line.hasMessage))
        {
            continue;
        }
        auto text = line.text.substr(start + value.label.size());
        text = line.hasMessage ? text.substr(0, text.find(']')) : text;
        if (auto meaning = value.decode(text); !meaning.empty())
        {
            addBounded(operation.details,
                       Detail{value.name, std::move(meaning), value.isTelling});
        }
    }
}

std::string Operation::reason() const
{
    std::string telling;
    for (const Detail& detail : details)
    {
        if (detail.name == "signature")
        {
            // Of several signatures, the last is told.
            telling.clear();
        }
        else if (telling.empty() && detail.isTelling &&
                 detail.text != "Success")
        {
            telling = ": " + detail.text;
        }
    }
    // A query does not know what its value is for. The operation that asked
    // does.
    const bool isQuery = site.file == "descriptor_query.cpp";
    return (isQuery && !echoes.empty() ? echoes.front().text + ": " : "") +
           site.text + telling;
}

void LogReader::read(const tools::FileDescriptor& file, const std::string& name)
{
    std::array<char, 65536> piece{};
    std::string line;
    ssize_t size = 0;
    while ((size = ::read(file.get(), piece.data(), piece.size())) > 0)
    {
        std::string_view rest(piece.data(), static_cast<std::size_t>(size));
        while (!rest.empty())
        {
            const auto part = rest.substr(0, rest.find('\n'));
            line += part.substr(0, MAX_LINE - line.size());
            rest.remove_prefix(part.size());
            if (skip(rest, "\n"))
            {
                take(line);
                line.clear();
            }
        }
    }
    if (size < 0)
    {
        throw tools::systemError(name);
    }
    take(line);
    finishRefusal();
}

void LogReader::take(std::string_view text)
{
    using enum Line::Level;
    const Line line = find(text).value_or(Line());
    if (line.level == FAILURE)
    {
        takeFailure(line);
    }
    // It is the cause only of a failure in the very next line.
    exception_.clear();
    if (line.level == NONE)
    {
        // A parser quotes its document, which may imitate lines of ours.
        for (Detail& detail : now_.details)
        {
            detail.isTelling = false;
        }
    }
    else if (line.level == SUCCESS)
    {
        takeSuccess(line);
    }
    else if (line.level == INFO)
    {
        addDetails(now_, line);
        if (auto rest = line.text; !line.hasMessage && skip(rest, "e.what(): "))
        {
            exception_ = rest;
        }
    }
}

void LogReader::takeFailure(const Line& line)
{
    const auto known = causes_.sites.find(line.number);
    const bool isKnown = known != causes_.sites.end();
    ++failures_;
    unknown_ += isKnown ? 0 : 1;
    const Site site = isKnown ? known->second : unknownSite(line.number);
    if (site.kind == "note" || site.kind.starts_with("pardon:"))
    {
        addBounded(now_.notes, site);
        return;
    }
    if (site.kind.starts_with("echo:") && refusal_)
    {
        addBounded(refusal_->echoes, site);
        addDetails(*refusal_, line);
        return;
    }
    finishRefusal();
    refusal_ = std::exchange(now_, {});
    refusal_->refused = true;
    refusal_->site = site;
    // An exception belongs only to a line without a message.
    refusal_->exception = line.hasMessage ? "" : exception_;
    addDetails(*refusal_, line);
    for (const auto& [name, value] :
         {std::pair("message", line.text), std::pair("logged", line.prefix)})
    {
        if (!value.empty())
        {
            addBounded(refusal_->details, Detail{name, std::string(value)});
        }
    }
}

void LogReader::takeSuccess(const Line& line)
{
    finishRefusal();
    // Any failure of the same source knows its name.
    const int block = line.number / BLOCK;
    const auto next = causes_.sites.lower_bound(block * BLOCK);
    if (next != causes_.sites.end() && next->first / BLOCK == block)
    {
        const std::string& file = next->second.file;
        std::string subject = file.substr(0, file.rfind('.'));
        std::ranges::replace(subject, '_', ' ');
        now_.site = {file, line.number, line.number % BLOCK, "", subject};
    }
    else
    {
        now_.site = unknownSite(line.number);
    }
    now_.site.text += line.text.empty() ? "" : ": " + std::string(line.text);
    sink_(std::exchange(now_, {}));
}

void LogReader::finishRefusal()
{
    if (refusal_)
    {
        const Operation done = std::move(*refusal_);
        refusal_.reset();
        sink_(done);
    }
}

} // namespace velmora::front
