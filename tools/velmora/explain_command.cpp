#include "explain_command.hpp"

#include "common/error.hpp"
#include "common/files.hpp"
#include "common/handles.hpp"
#include "json.hpp"
#include "log_reader.hpp"

#include <fcntl.h>

#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>

namespace velmora::front
{

namespace
{

/** The column of the places in the source. */
constexpr int TEXT_WIDTH = 60;
/** In bytes; it says more than the log. */
constexpr std::size_t MAX_ANSWER = std::size_t{256} << 20;

void writeLine(std::ostream& out, const std::string& text, const Site& site)
{
    out << std::left << std::setw(site.file.empty() ? 0 : TEXT_WIDTH)
        << tools::printable(text);
    if (!site.file.empty())
    {
        out << ' ' << tools::printable(site.file) << ':' << site.line;
    }
    out << '\n';
}

std::string inText(const Operation& operation)
{
    std::ostringstream out;
    writeLine(out, operation.word() + (": " + operation.reason()),
              operation.site);
    for (const Site& note : operation.notes)
    {
        writeLine(out, "    note: " + note.text, note);
    }
    for (const Detail& detail : operation.details)
    {
        out << "    " << inWords(detail.name) << ": "
            << tools::printable(detail.text) << '\n';
    }
    for (const Site& echo : operation.echoes)
    {
        writeLine(out, "    so: " + echo.text, echo);
    }
    return out.str();
}

std::string inJson(const Operation& operation, const std::string& buildId)
{
    nlohmann::ordered_json object;
    object["buildId"] = buildId;
    object["buildIsKnown"] = operation.isBuildKnown;
    object["verdict"] = operation.word();
    object["reason"] = operation.reason();
    object["cause"] = asJson(operation.site);
    for (const auto& [name, sites] : {std::pair("echoes", &operation.echoes),
                                      std::pair("notes", &operation.notes)})
    {
        object[name] = nlohmann::ordered_json::array();
        for (const Site& site : *sites)
        {
            object[name].push_back(asJson(site));
        }
    }
    object["details"] = detailsAsJson(operation);
    return asText(object);
}

/** Keeps the answer in a file until the whole log is read: every line may show
 *  that another build wrote it. */
class Answer
{
  public:
    Answer(const std::string& buildId, bool json) :
        buildId_(buildId), json_(json)
    {
    }

    /** @throws tools::Error when there is too much already */
    void add(const Operation& operation);
    /** To be called when none follows.
     *
     *  @param objection what speaks against all of it, or empty */
    void print(const std::string& objection);

    bool isEmpty() const { return size_ == 0; }
    bool hasUnknown() const { return hasUnknown_; }

  private:
    std::string next(const Operation& operation);

    const std::string& buildId_;
    bool json_;
    tools::TemporaryDirectory directory_;
    std::fstream file_{directory_.path() / "answer",
                       std::ios::in | std::ios::out | std::ios::trunc};
    std::size_t size_ = 0;
    bool hasUnknown_ = false;
    /** The build under which what follows is to be read. */
    std::string heading_;
};

void Answer::add(const Operation& operation)
{
    if (size_ > MAX_ANSWER)
    {
        throw tools::Error("the answer",
                           "it has more than 256 MiB: cut the log");
    }
    file_ << next(operation);
}

/** Written behind what there is already. */
std::string Answer::next(const Operation& operation)
{
    hasUnknown_ |= operation.ending == Operation::Ending::UNKNOWN;
    std::string text;
    if (json_)
    {
        text = (isEmpty() ? "[" : ",\n") + inJson(operation, buildId_);
    }
    else
    {
        const std::string heading =
            (operation.isBuildKnown ? "build " : "if build ") + buildId_ +
            " wrote this:\n";
        text = (heading == heading_ ? "" : heading) + inText(operation);
        heading_ = heading;
    }
    size_ += text.size();
    return text;
}

void Answer::print(const std::string& objection)
{
    if (!file_.seekg(0))
    {
        throw tools::Error(directory_.path().string(),
                           "the answer cannot be kept here; is there room?");
    }
    if (!objection.empty())
    {
        Operation unknown;
        unknown.ending = Operation::Ending::UNKNOWN;
        unknown.site.text = "another build wrote this: " + objection;
        size_ = 0;
        heading_.clear();
        std::cout << next(unknown);
    }
    else if (!isEmpty())
    {
        std::cout << file_.rdbuf();
    }
    std::cout << (!json_ ? "" : isEmpty() ? "[]\n" : "]\n") << std::flush;
}

} // namespace

bool explain(const std::string& log, const std::string& library, bool json)
{
    const CauseTable& table =
        library.empty() ? linkedCauses() : readCauses(library);
    if (table.sites.empty())
    {
        throw tools::Error(table.library,
                           "holds no causes of libvelmora's failures; name "
                           "another library with --library");
    }
    const bool isStandardInput = log == "-";
    const std::string name = isStandardInput ? "standard input" : log;
    const tools::FileDescriptor file(
        isStandardInput ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                        : open(log.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0)
    {
        throw tools::systemError(name);
    }
    Answer answer(table.buildId, json);
    LogReader reader(table, [&answer](const Operation& operation)
                     { answer.add(operation); });
    try
    {
        reader.read(file, name);
    }
    catch (const tools::Error&)
    {
        // What could be read is told.
        answer.print(reader.objection());
        throw;
    }
    answer.print(reader.objection());
    if (answer.hasUnknown())
    {
        throw tools::Error(name, "not all of it is of " + table.library +
                                     " (build-id " + table.buildId +
                                     "): name the library that wrote it with "
                                     "--library");
    }
    if (reader.lines() == 0)
    {
        throw tools::Error(name, "holds no line of libvelmora's");
    }
    if (answer.isEmpty() && !json)
    {
        std::cout << "nothing was refused\n";
    }
    return true;
}

} // namespace velmora::front
