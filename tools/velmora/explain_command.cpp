#include "explain_command.hpp"

#include "common/error.hpp"
#include "common/handles.hpp"
#include "json.hpp"
#include "log_reader.hpp"

#include <fcntl.h>

#include <cstddef>
#include <iostream>

namespace velmora::front
{

namespace
{

/** In bytes; it says more than the log. */
constexpr std::size_t MAX_ANSWER = std::size_t{64} << 20;

/** One line, with the place in the source behind it. */
std::string lineOf(const std::string& text, const Site& site)
{
    const std::string place =
        site.file.empty() ? ""
                          : "  " + site.file + ':' + std::to_string(site.line);
    return tools::printable(text + place) + '\n';
}

std::string inText(const Operation& operation)
{
    std::string text =
        lineOf(operation.word() + (": " + operation.reason()), operation.site);
    for (const Site& note : operation.notes)
    {
        text += lineOf("    note: " + note.text, note);
    }
    for (const Detail& detail : operation.details)
    {
        text += lineOf("    " + inWords(detail.name) + ": " + detail.text, {});
    }
    for (const Site& echo : operation.echoes)
    {
        text += lineOf("    so: " + echo.text, echo);
    }
    return text;
}

std::string inJson(const Operation& operation, const std::string& buildId)
{
    nlohmann::ordered_json object;
    object["buildId"] = buildId;
    object["buildIsKnown"] = operation.isBuildKnown;
    object["verdict"] = operation.word();
    object["reason"] = operation.reason();
    object["cause"] = operation.site;
    object["echoes"] = operation.echoes;
    object["notes"] = operation.notes;
    object["details"] = detailsAsJson(operation);
    return asText(object);
}

/** Keeps the answer until the whole log is read: every line may show that
 *  another build wrote it. */
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

    bool isEmpty() const { return text_.empty(); }
    bool hasUnknown() const { return hasUnknown_; }

  private:
    const std::string& buildId_;
    bool json_;
    std::string text_;
    bool hasUnknown_ = false;
    bool isBuildKnown_ = true;
};

void Answer::add(const Operation& operation)
{
    if (text_.size() > MAX_ANSWER)
    {
        throw tools::Error("the answer",
                           "it has more than 64 MiB: cut the log");
    }
    hasUnknown_ |= operation.ending == Operation::Ending::UNKNOWN;
    isBuildKnown_ &= operation.isBuildKnown;
    text_ += !json_      ? inText(operation)
             : isEmpty() ? inJson(operation, buildId_)
                         : ",\n" + inJson(operation, buildId_);
}

void Answer::print(const std::string& objection)
{
    if (!objection.empty())
    {
        text_.clear();
        Operation unknown;
        unknown.ending = Operation::Ending::UNKNOWN;
        unknown.site.text = "another build wrote this: " + objection;
        add(unknown);
    }
    if (json_)
    {
        std::cout << '[' << text_ << "]\n";
    }
    else if (!isEmpty())
    {
        std::cout << (isBuildKnown_ ? "build " : "if build ") << buildId_
                  << " wrote this:\n"
                  << text_;
    }
    std::cout.flush();
}

} // namespace

void explain(const std::string& log, const std::string& library, bool json)
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
}

} // namespace velmora::front
