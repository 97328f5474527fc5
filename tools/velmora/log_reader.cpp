#include "log_reader.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <exception>
#include <system_error>

namespace velmora::front
{

namespace
{

/** How a line of ours can begin. */
constexpr std::string_view STARTS = "LFSI";
/** Of each kind in one operation; of more, the last are kept. */
constexpr std::size_t MAX_ITEMS = 32;
/** Operations that wait for a line that shows another build. */
constexpr std::size_t MAX_WAITING = 32;
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

template <typename Item>
void addBounded(std::vector<Item>& items, Item item)
{
    if (items.size() == MAX_ITEMS)
    {
        items.erase(items.begin());
    }
    items.push_back(std::move(item));
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

const Detail* findDetail(const Operation& operation, std::string_view name)
{
    const auto found =
        std::ranges::find(operation.details, name, &Detail::name);
    return found != operation.details.end() ? &*found : nullptr;
}

/** Whether the systems that a descriptor lists were being compared. */
bool isComparing(const Operation& operation)
{
    const Detail* listed = findDetail(operation, "systemsListed");
    return listed != nullptr && listed->text != "0";
}

/** Whether a failure of @p source is under way. */
bool isUnderWay(const std::optional<Operation>& refusal,
                const std::string& source)
{
    const auto isOf = [&source](const Site& site)
    { return site.file == source + ".cpp"; };
    return refusal &&
           (isOf(refusal->site) || std::ranges::any_of(refusal->echoes, isOf));
}

} // namespace

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
    for (std::size_t at = text.find_first_of(STARTS);
         at != std::string_view::npos; at = text.find_first_of(STARTS, at + 1))
    {
        if (at > 0 && std::isalnum(static_cast<unsigned char>(text[at - 1])))
        {
            continue;
        }
        if (auto line = parse(text.substr(at)))
        {
            line->origin = text.substr(0, at);
            line->origin.remove_suffix(at - 1 -
                                       line->origin.find_last_not_of(" :"));
            return line;
        }
    }
    return std::nullopt;
}

/** Decodes the values that a line carries. */
void LogReader::addDetails(Operation& operation, const Line& line)
{
    for (Detail& detail : valuesIn(line.text, line.hasMessage))
    {
        addBounded(operation.details, std::move(detail));
    }
}

const char* Operation::word() const
{
    constexpr std::array WORDS{"passed", "refused",    "failed",
                               "note",   "no verdict", "unknown"};
    return WORDS.at(static_cast<std::size_t>(ending));
}

std::string Operation::reason() const
{
    if (ending == Ending::PASSED)
    {
        return site.text;
    }
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
    if (const Detail* own = findDetail(*this, "thisSystem");
        own != nullptr && isComparing(*this) && site.file == IDENTITY_CHECK)
    {
        telling = ": this machine is " + own->text;
    }
    // A query does not know what its value is for. The operation that asked
    // does.
    const bool isQuery =
        !site.judges && !echoes.empty() && echoes.front().judges;
    return (isQuery ? echoes.front().text + ": " : "") + site.text + telling;
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
    tie_ = Tie::KNOWN;
    Process& process = processOf("");
    while (!log.empty())
    {
        const auto text = log.substr(0, log.find('\n'));
        log.remove_prefix(std::min(text.size() + 1, log.size()));
        takeLine(process, parse(text).value_or(Line()));
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
    Process& process = processOf(logLine.process);
    if (logLine.text.starts_with(VERSION_START) &&
        logLine.text.find(VERSION_ID) != std::string_view::npos)
    {
        takeVersion(process, logLine.text);
        return;
    }
    Line line = find(logLine.text).value_or(Line());
    line.origin = logLine.origin.empty() ? line.origin : logLine.origin;
    lines_ += line.level == Line::Level::NONE ? 0 : 1;
    takeLine(process, line);
}

/** The line that "velmora --version" prints. */
void LogReader::takeVersion(Process& process, std::string_view text)
{
    finish(process);
    process = Process{process.name};
    named_ = text.substr(text.find(VERSION_ID) + VERSION_ID.size())
                 .substr(0, MAX_TEXT);
    tie_ = named_ == table_.buildId ? Tie::KNOWN : Tie::REFUTED;
}

void LogReader::takeLine(Process& process, const Line& line)
{
    using enum Line::Level;
    if (process.isDoubted)
    {
        return;
    }
    if (line.level == NONE)
    {
        // A parser quotes its document, which may imitate lines of ours.
        for (Detail& detail : process.now.details)
        {
            detail.isTelling = false;
        }
    }
    else if (line.level == INFO)
    {
        addDetails(process.now, line);
    }
    else if (const std::string objection = objectionTo(process, line);
             !objection.empty())
    {
        doubt(process, objection);
    }
    else
    {
        const Site& site = table_.sites.at(line.number);
        if (isComparing(process.now) && site.file != IDENTITY_CHECK)
        {
            finishOpen(process);
        }
        if (line.level == FAILURE)
        {
            takeFailure(process, line, site);
        }
        else
        {
            finishRefusal(process);
            if (site.kind == Kind::SUCCESS)
            {
                process.now.ending = Operation::Ending::PASSED;
                process.now.site = site;
                add(process, std::exchange(process.now, {}));
            }
        }
    }
    // It is the cause only of a failure in the very next line.
    auto rest = line.text;
    const bool isException =
        line.level == INFO && !line.hasMessage && skip(rest, "e.what(): ");
    process.exception = isException ? rest.substr(0, MAX_TEXT) : "";
}

/** Why the build of the table has not written the line, or empty. */
std::string LogReader::objectionTo(const Process& process,
                                   const Line& line) const
{
    const bool isFailure = line.level == Line::Level::FAILURE;
    const std::string number = std::to_string(line.number);
    const auto known = table_.sites.find(line.number);
    if (tie_ == Tie::REFUTED)
    {
        return "the log names the build-id " + named_;
    }
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
    if (tie_ == Tie::KNOWN)
    {
        return {};
    }
    if (line.hasMessage && !isMadeWith(site.message, line.text))
    {
        return "line " + number + " has another message";
    }
    const bool passesOn =
        site.kind == Kind::PASSED_ON || site.kind == Kind::PARDON;
    return passesOn && !isUnderWay(process.refusal, site.source)
               ? "line " + number + " passes on what did not fail"
               : "";
}

void LogReader::takeFailure(Process& process, const Line& line,
                            const Site& site)
{
    auto& refusal = process.refusal;
    if (site.kind == Kind::PASSED_ON && refusal)
    {
        addBounded(refusal->echoes, site);
        addDetails(*refusal, line);
    }
    else if (site.kind == Kind::PARDON && isUnderWay(refusal, site.source))
    {
        // What it has read so far belongs to what goes on.
        process.now = std::move(*refusal);
        refusal.reset();
        addBounded(process.now.notes, std::exchange(process.now.site, {}));
        addBounded(process.now.notes, site);
    }
    else if (site.kind == Kind::NOTE || site.kind == Kind::PARDON)
    {
        addBounded(process.now.notes, site);
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
    // An exception belongs only to a line without a message.
    refusal.exception = line.hasMessage ? "" : process.exception;
    addDetails(refusal, line);
    const auto* service = std::ranges::find(
        SERVICES, site.file, &std::pair<std::string_view, const char*>::first);
    const Detail* thrown = findDetail(refusal, "exceptionType");
    if (service != SERVICES.end() && (!refusal.exception.empty() ||
                                      (thrown != nullptr && thrown->isTelling)))
    {
        addBounded(refusal.details, Detail{"lookAt", service->second});
    }
    for (const auto& [name, value] :
         {std::pair("message", line.text), std::pair("logged", line.origin)})
    {
        if (!value.empty())
        {
            addBounded(refusal.details,
                       Detail{name, std::string(value.substr(0, MAX_TEXT))});
        }
    }
}

void LogReader::doubt(Process& process, const std::string& objection)
{
    Operation unknown;
    unknown.ending = Operation::Ending::UNKNOWN;
    unknown.site.text = tie_ == Tie::KNOWN
                            ? "a text imitates the library: " + objection
                            : "another build wrote this: " + objection;
    if (tie_ != Tie::KNOWN)
    {
        // What seemed clear before is as doubtful.
        process = Process{process.name};
        process.isDoubted = true;
    }
    add(process, std::move(unknown));
}

void LogReader::finishRefusal(Process& process)
{
    if (!process.refusal)
    {
        return;
    }
    Operation refusal = *std::exchange(process.refusal, std::nullopt);
    const bool isUnanswered = findDetail(refusal, "lookAt") != nullptr;
    const bool judges = refusal.site.judges ||
                        std::ranges::any_of(refusal.echoes, &Site::judges);
    refusal.ending = judges && !isUnanswered ? Operation::Ending::REFUSED
                                             : Operation::Ending::FAILED;
    add(process, std::move(refusal));
}

void LogReader::add(Process& process, Operation operation)
{
    operation.tie = tie_;
    process.done.push_back(std::move(operation));
    if (process.done.size() == MAX_WAITING)
    {
        handOn(process);
    }
}

void LogReader::handOn(Process& process)
{
    for (const Operation& operation : std::exchange(process.done, {}))
    {
        sink_(operation);
    }
}

/** An exception leaves no line of its own. */
void LogReader::finishOpen(Process& process)
{
    finishRefusal(process);
    process.now.site.text = "a systemID of the descriptor is no number of 16 "
                            "bits, or the log ends early";
    add(process, std::exchange(process.now, {}));
}

/** Nothing follows in this process. */
void LogReader::finish(Process& process)
{
    finishRefusal(process);
    if (isComparing(process.now))
    {
        finishOpen(process);
    }
    Operation last = std::exchange(process.now, {});
    if (!last.notes.empty())
    {
        last.ending = Operation::Ending::NOTED;
        last.site = last.notes.back();
        last.notes.pop_back();
        add(process, std::move(last));
    }
    handOn(process);
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
