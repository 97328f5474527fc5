#include "log_reader.hpp"

#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <exception>
#include <ranges>
#include <system_error>

namespace velmora::front
{

namespace
{

/** Of more, the one that has been silent for longest is at its end. */
constexpr std::size_t MAX_PROCESSES = 64;
/** A longer text is cut; in bytes. */
constexpr std::size_t MAX_TEXT = 512;
constexpr std::string_view VERSION_START = "velmora ";
constexpr std::string_view VERSION_ID = ", build-id ";

constexpr std::string_view IDENTITY_CHECK = "system_identity.cpp";

/** What to look at where nobody has answered a source's call. */
constexpr std::array<std::pair<std::string_view, const char*>, 3> SERVICES{{
    {IDENTITY_CHECK, "busctl status com.vorn.bmc.smad"},
    {"manifest_verification.cpp",
     "busctl status xyz.openbmc_project.securityservices"},
    {"software_inventory.cpp",
     "busctl status xyz.openbmc_project.Software.Installed.Inventory"},
}};

/** Of what tells most: how the machine's own faults begin, and what to look at.
 *  They say nothing of a package. */
constexpr std::array<std::pair<std::string_view, const char*>, 3> FAULTS{{
    {"Invalid crypto engine", "gpg --version"},
    {"exit code 50, ", "df, and who may write there"},
    {"exit code 127, ", "/usr/bin/unzip"},
}};

using Meaning = std::pair<int, const char*>;

constexpr std::array EXTRACTOR_CODES{
    Meaning{1, "a member was skipped or is damaged: a password, an unknown "
               "compression, or data that is not what was packed"},
    Meaning{2, "a damaged archive: cut short, changed on its way, or with "
               "something in front"},
    Meaning{3, "a damaged archive"},
    Meaning{9, "not a ZIP file, or not there"},
    Meaning{11, "no member matched"},
    Meaning{50, "the disk is full, or a file cannot be made"},
    Meaning{51, "a damaged archive: cut short"},
    Meaning{81, "a compression that the extractor cannot read"},
    Meaning{82, "encrypted member"},
    Meaning{127, "the extractor cannot be started"},
};

std::string asItIs(std::string_view text) { return std::string(text); }

std::string extractorStatus(std::string_view text)
{
    int status = -1;
    std::from_chars(text.data(), text.data() + text.size(), status);
    const int code = WEXITSTATUS(status);
    const auto known =
        std::ranges::find(EXTRACTOR_CODES, code, &Meaning::first);
    return "exit code " + std::to_string(code) +
           (known != EXTRACTOR_CODES.end() ? std::string(", ") + known->second
                                           : "");
}

std::string gpgmeError(std::string_view text)
{
    return text == "No data" ? "package.xml.sign holds no OpenPGP signature"
                             : std::string(text);
}

/** A value in a line: what stands in front of it, and what it means. */
struct Value
{
    std::string_view label;
    const char* name;
    /** Gives the empty text for what is not worth showing. */
    std::string (*decode)(std::string_view);
    int reach = 0;
};

/** The failure stands in the same line or in the source's next. */
constexpr int NEXT_LINE = 2;
constexpr int WHOLE_SOURCE = 1000;

constexpr std::array VALUES{
    Value{"pidStatus: ", "extractor", extractorStatus, NEXT_LINE},
    Value{"gpgmeStrErr: ", "gpgmeError", gpgmeError, NEXT_LINE},
    Value{"gpgme_strerror(gpgmeSig->status): ", "signatureStatus", asItIs,
          WHOLE_SOURCE},
    Value{"gpgmeSig->timestamp: ", "signatureMade", date},
    Value{"gpgmeSig->exp_timestamp: ", "signatureExpires", date},
    Value{"e.what(): ", "exception", asItIs, NEXT_LINE},
    Value{"msg: ", "exceptionType", asItIs, NEXT_LINE},
    Value{"hexSystemIDStr: ", "thisSystem", asItIs},
    Value{"xmlXPathNodeNr: ", "systemsListed", asItIs},
    Value{"sha256FromPkgXML: ", "expectedDigest", asItIs},
    Value{"sha256FromImage: ", "payloadDigest", asItIs},
    Value{"errstr[", "error", asItIs, NEXT_LINE},
    Value{"errmsg[", "error", asItIs, NEXT_LINE},
    Value{"strerr[", "error", asItIs, NEXT_LINE},
    Value{"timestamp =", "signingTime", date},
};

void addOnce(std::vector<Site>& sites, const Site& site)
{
    if (std::ranges::find(sites, site) == sites.end())
    {
        sites.push_back(site);
    }
}

/** Takes @p start off the text, if it is there. */
bool skip(std::string_view& text, std::string_view start)
{
    const bool found = text.starts_with(start);
    text.remove_prefix(found ? start.size() : 0);
    return found;
}

/** Whether printf can have made the text; what it puts in is not looked at. */
bool isMadeWith(const std::string& format, std::string_view text)
{
    const auto start = format.substr(0, format.find('%'));
    return start.size() < format.size() ? text.starts_with(start)
                                        : text == format;
}

/** A new value takes the place of the one before: a document that a parser
 *  quotes may imitate lines of ours, but the last are ours. */
void addDetail(Operation& operation, Detail detail)
{
    detail.text.resize(std::min(detail.text.size(), MAX_TEXT));
    if (!detail.text.empty())
    {
        std::erase_if(operation.details, [&detail](const Detail& before)
                      { return before.name == detail.name; });
        operation.details.push_back(std::move(detail));
    }
}

/** What says more about the failure than its cause alone, or empty. */
std::string tellingOf(const Operation& operation)
{
    const auto isNear = [&operation](const Detail& detail)
    {
        const int distance = operation.site.number - detail.number;
        return distance >= 0 && distance < detail.reach;
    };
    const auto newest = std::views::reverse(operation.details);
    const auto found = std::ranges::find_if(newest, isNear);
    return found != newest.end() ? found->text : "";
}

/** Whether the systems that a descriptor lists were being compared. */
bool isComparing(const Operation& operation)
{
    const std::string listed = operation.detail("systemsListed");
    return !listed.empty() && listed != "0";
}

/** Whether a failure of the source of @p echo is under way, and has not been
 *  passed on by it. */
bool isUnderWay(const std::optional<Operation>& refusal, const Site& echo)
{
    const auto isOf = [&echo](const Site& site)
    { return site.file == echo.source + ".cpp"; };
    return refusal &&
           std::ranges::find(refusal->echoes, echo) == refusal->echoes.end() &&
           (isOf(refusal->site) || std::ranges::any_of(refusal->echoes, isOf));
}

} // namespace

const char* Operation::word() const
{
    constexpr std::array WORDS{"passed", "refused",    "failed",
                               "note",   "no verdict", "unknown"};
    return WORDS.at(static_cast<std::size_t>(ending));
}

std::string Operation::detail(std::string_view name) const
{
    const auto found = std::ranges::find(details, name, &Detail::name);
    return found != details.end() ? found->text : "";
}

std::string Operation::reason() const
{
    if (ending == Ending::PASSED)
    {
        return site.text;
    }
    std::string telling = tellingOf(*this);
    const std::string own = detail("thisSystem");
    if (!own.empty() && isComparing(*this) && site.file == IDENTITY_CHECK)
    {
        telling = "this machine is " + own;
    }
    // A good signature is refused only for its key.
    telling = telling == "Success" ? "its key is not trusted" : telling;
    // A query does not know what its value is for. The operation that asked
    // does.
    const bool isQuery =
        !site.judges && !echoes.empty() && echoes.front().judges;
    return (isQuery ? echoes.front().text + ": " : "") + site.text +
           (telling.empty() ? "" : ": ") + telling;
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
    /** What a log daemon tells of it. */
    std::string_view origin;

    void addValuesTo(Operation& operation) const;
};

/** Decodes the values that it carries. */
void LogReader::Line::addValuesTo(Operation& operation) const
{
    for (const Value& value : VALUES)
    {
        const auto start = hasMessage ? text.find(value.label)
                           : text.starts_with(value.label)
                               ? 0
                               : std::string_view::npos;
        if (start < text.size())
        {
            auto found = text.substr(start + value.label.size());
            found = hasMessage ? found.substr(0, found.find(']')) : found;
            addDetail(operation,
                      {value.name, value.decode(found), number, value.reach});
        }
    }
}

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
        line.level = text == " [FAILURE]"   ? FAILURE
                     : text == " [SUCCESS]" ? SUCCESS
                     // Also one that is cut: it is not to go unheard.
                     : skip(text, " [INFO ") || skip(text, " [") ? INFO
                                                                 : NONE;
        text.remove_suffix(text.ends_with(']') ? 1 : 0);
        text = line.level == INFO ? text : std::string_view();
    }
    line.text = text;
    return error == std::errc() && line.level != NONE ? std::optional(line)
                                                      : std::nullopt;
}

void LogReader::read(const tools::FileDescriptor& file, const std::string& name)
{
    try
    {
        readLog(file, name, [this](const LogLine& line) { take(line); });
    }
    catch (const std::exception&)
    {
        finishAll();
        throw;
    }
    finishAll();
}

void LogReader::readOwn(std::string_view log)
{
    isBuildKnown_ = true;
    while (!log.empty())
    {
        const auto text = log.substr(0, log.find('\n'));
        log.remove_prefix(std::min(text.size() + 1, log.size()));
        if (const auto line = parse(text))
        {
            takeLine(processOf(""), *line);
        }
    }
    finishAll();
}

LogReader::Process& LogReader::processOf(std::string_view name)
{
    const auto known = std::ranges::find(processes_, name, &Process::name);
    if (known != processes_.end())
    {
        processes_.splice(processes_.begin(), processes_, known);
        return processes_.front();
    }
    if (processes_.size() == MAX_PROCESSES)
    {
        finish(processes_.back());
        processes_.pop_back();
    }
    return processes_.emplace_front(Process{std::string(name)});
}

void LogReader::take(const LogLine& logLine)
{
    // Behind two dashes, journalctl itself says something.
    if (logLine.text.starts_with("-- Boot ") ||
        logLine.text.starts_with("-- Reboot "))
    {
        finishAll();
    }
    if (logLine.text.empty() || logLine.text.starts_with("-- "))
    {
        return;
    }
    const bool isFirst = std::exchange(isEmpty_, false);
    auto line = parse(logLine.text);
    // Others write lines that look like these.
    if (line && (line->level != Line::Level::INFO ||
                 table_.inBlockOf(line->number) != nullptr))
    {
        ++lines_;
        hasBareLines_ |= logLine.process.empty();
        isBuildKnown_ &= isNamedFirst_ || !hasBareLines_;
        line->origin = logLine.origin;
        takeLine(processOf(logLine.process), *line);
    }
    else if (logLine.text.starts_with(VERSION_START))
    {
        takeVersion(logLine, isFirst);
    }
}

/** Takes the line that "velmora --version" prints. The text of a package may
 *  imitate it: it is believed where no such text can be, which is in front of
 *  all, or where every line tells its process. */
void LogReader::takeVersion(const LogLine& line, bool isFirst)
{
    const auto start = line.text.find(VERSION_ID);
    if (start == std::string_view::npos)
    {
        return;
    }
    const auto id = line.text.substr(start + VERSION_ID.size());
    const bool isNew = std::ranges::find(processes_, line.process,
                                         &Process::name) == processes_.end();
    const bool isByTool = line.process.substr(line.process.rfind(' ') + 1)
                              .starts_with("velmora[");
    if (id == table_.buildId)
    {
        isNamedFirst_ |= line.process.empty() && isFirst;
        isBuildKnown_ |= isNamedFirst_ || (isByTool && isNew && !hasBareLines_);
    }
    else if (!isBuildKnown_ || line.process.empty() || isByTool)
    {
        isBuildKnown_ = false;
        doubt("the log names the build-id " +
              std::string(id.substr(0, MAX_TEXT)));
    }
}

void LogReader::takeLine(Process& process, const Line& line)
{
    using enum Line::Level;
    if (line.level == INFO)
    {
        // It would stand right before its failure.
        std::erase_if(process.now.details, [](const Detail& detail)
                      { return detail.reach == NEXT_LINE; });
        line.addValuesTo(process.now);
        const Site* const source = table_.inBlockOf(line.number);
        process.now.isBegun |= source != nullptr && source->judges;
        return;
    }
    if (const std::string objection = objectionTo(process, line);
        !objection.empty())
    {
        doubt(objection);
        return;
    }
    const Site& site = table_.sites.at(line.number);
    if (isComparing(process.now) && site.file != IDENTITY_CHECK)
    {
        finish(process);
    }
    if (line.level == FAILURE)
    {
        takeFailure(process, line, site);
        return;
    }
    finishRefusal(process);
    if (site.kind == Kind::SUCCESS)
    {
        process.now.ending = Operation::Ending::PASSED;
        process.now.site = site;
        add(std::exchange(process.now, {}));
    }
}

/** Why the build of the table has not written the line, or empty. */
std::string LogReader::objectionTo(const Process& process,
                                   const Line& line) const
{
    const bool isFailure = line.level == Line::Level::FAILURE;
    const std::string number = std::to_string(line.number);
    const auto known = table_.sites.find(line.number);
    if (known == table_.sites.end())
    {
        return "nothing is known of line " + number;
    }
    const Site& site = known->second;
    const bool succeeds =
        site.kind == Kind::SUCCESS || site.kind == Kind::ANSWER;
    if (isFailure == succeeds || line.hasMessage == site.message.empty())
    {
        return "line " + number + " is of another kind";
    }
    if (line.hasMessage && !isMadeWith(site.message, line.text))
    {
        return "line " + number + " has another message";
    }
    // The operation that it echoes may be the daemon's own.
    const bool passesOn =
        site.kind == Kind::PASSED_ON || site.kind == Kind::PARDON;
    return passesOn && !isBuildKnown_ && !isUnderWay(process.refusal, site)
               ? "line " + number +
                     " passes on what did not fail, or the log does not "
                     "begin early enough"
               : "";
}

void LogReader::doubt(const std::string& objection)
{
    if (isBuildKnown_)
    {
        Operation unknown;
        unknown.ending = Operation::Ending::UNKNOWN;
        unknown.site.text = "a text imitates the library: " + objection;
        add(std::move(unknown));
    }
    else if (objection_.empty())
    {
        objection_ = objection;
    }
}

void LogReader::takeFailure(Process& process, const Line& line,
                            const Site& site)
{
    auto& refusal = process.refusal;
    if (refusal && site.kind == Kind::PASSED_ON && isUnderWay(refusal, site))
    {
        refusal->echoes.push_back(site);
        line.addValuesTo(*refusal);
    }
    else if (refusal && site.kind == Kind::PARDON && isUnderWay(refusal, site))
    {
        // What it has read so far belongs to what goes on.
        process.now = std::move(*refusal);
        refusal.reset();
        addOnce(process.now.notes, std::exchange(process.now.site, {}));
        addOnce(process.now.notes, site);
    }
    else if (site.kind == Kind::NOTE || site.kind == Kind::PARDON)
    {
        addOnce(process.now.notes, site);
    }
    else
    {
        takeRefusal(process, line, site);
    }
}

void LogReader::takeRefusal(Process& process, const Line& line,
                            const Site& site)
{
    finishRefusal(process);
    Operation& refusal =
        process.refusal.emplace(std::exchange(process.now, {}));
    refusal.site = site;
    line.addValuesTo(refusal);
    const auto* service = std::ranges::find(
        SERVICES, site.file, &std::pair<std::string_view, const char*>::first);
    if (service != SERVICES.end() && !tellingOf(refusal).empty())
    {
        addDetail(refusal, {"lookAt", service->second});
    }
    for (const auto& [telling, lookAt] : FAULTS)
    {
        if (tellingOf(refusal).starts_with(telling))
        {
            addDetail(refusal, {"lookAt", lookAt});
        }
    }
    addDetail(refusal, {"message", std::string(line.text)});
    addDetail(refusal, {"logged", std::string(line.origin)});
}

void LogReader::add(Operation operation)
{
    operation.isBuildKnown = isBuildKnown_;
    sink_(operation);
}

void LogReader::finishRefusal(Process& process)
{
    if (!process.refusal)
    {
        return;
    }
    Operation refusal = std::move(*process.refusal);
    process.refusal.reset();
    const bool isUnanswered = !refusal.detail("lookAt").empty();
    const bool judges = refusal.site.judges ||
                        std::ranges::any_of(refusal.echoes, &Site::judges);
    refusal.ending = judges && !isUnanswered ? Operation::Ending::REFUSED
                                             : Operation::Ending::FAILED;
    add(std::move(refusal));
}

/** Nothing follows of what goes on in this process. */
void LogReader::finish(Process& process)
{
    finishRefusal(process);
    Operation last = std::exchange(process.now, {});
    if (isComparing(last))
    {
        // An exception leaves no line of its own.
        last.site.text = "a systemID of the descriptor is no number of 16 "
                         "bits, or the log ends early";
        add(std::move(last));
    }
    else if (last.isBegun)
    {
        last.site.text = "its result is not in the log";
        add(std::move(last));
    }
    else if (!last.notes.empty())
    {
        last.ending = Operation::Ending::NOTED;
        last.site = last.notes.back();
        last.notes.pop_back();
        add(std::move(last));
    }
}

void LogReader::finishAll()
{
    while (!processes_.empty())
    {
        finish(processes_.back());
        processes_.pop_back();
    }
}

} // namespace velmora::front
