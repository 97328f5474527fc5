#include "explain_command.hpp"

#include "common/error.hpp"
#include "common/handles.hpp"
#include "json.hpp"
#include "log_reader.hpp"

#include <fcntl.h>

#include <iomanip>
#include <iostream>

namespace velmora::front
{

namespace
{

/** The column of the places in the source. */
constexpr int TEXT_WIDTH = 60;

/** Prints operations as they come. */
class Printer
{
  public:
    Printer(const CauseTable& table, bool json) : table_(table), json_(json) {}

    void print(const Operation& operation);
    /** To be called when none follows. */
    void finish() const
    {
        std::cout << (!json_ ? "" : count_ == 0 ? "[]\n" : "]\n");
    }

    std::size_t count() const { return count_; }
    bool hasUnknown() const { return hasUnknown_; }

  private:
    void printText(const Operation& operation);
    nlohmann::ordered_json asJson(const Operation& operation) const;

    const CauseTable& table_;
    bool json_;
    std::size_t count_ = 0;
    bool hasUnknown_ = false;
    /** The build under which what follows is to be read. */
    std::string heading_;
};

void printLine(const std::string& text, const Site& site)
{
    std::cout << std::left << std::setw(site.file.empty() ? 0 : TEXT_WIDTH)
              << tools::printable(text);
    if (!site.file.empty())
    {
        std::cout << ' ' << tools::printable(site.file) << ':' << site.line;
    }
    std::cout << '\n';
}

void Printer::print(const Operation& operation)
{
    hasUnknown_ |= operation.ending == Operation::Ending::UNKNOWN;
    if (json_)
    {
        std::cout << (count_ == 0 ? "[" : ",\n") << asText(asJson(operation));
    }
    else
    {
        printText(operation);
    }
    ++count_;
}

void Printer::printText(const Operation& operation)
{
    const std::string heading =
        operation.tie == Tie::KNOWN
            ? "build " + table_.buildId + " wrote this:\n"
            : "if build " + table_.buildId + " wrote this:\n";
    std::cout << (heading == heading_ ? "" : heading);
    heading_ = heading;
    printLine(operation.word() + (": " + operation.reason()), operation.site);
    for (const Site& note : operation.notes)
    {
        printLine("    note: " + note.text, note);
    }
    for (const Detail& detail : operation.details)
    {
        std::cout << "    " << inWords(detail.name) << ": "
                  << tools::printable(detail.text) << '\n';
    }
    for (const Site& echo : operation.echoes)
    {
        printLine("    so: " + echo.text, echo);
    }
}

nlohmann::ordered_json Printer::asJson(const Operation& operation) const
{
    nlohmann::ordered_json object;
    object["buildId"] = table_.buildId;
    object["buildIsKnown"] = operation.tie == Tie::KNOWN;
    object["verdict"] = operation.word();
    object["reason"] = operation.reason();
    object["cause"] = front::asJson(operation.site);
    for (const auto& [name, sites] : {std::pair("echoes", &operation.echoes),
                                      std::pair("notes", &operation.notes)})
    {
        object[name] = nlohmann::ordered_json::array();
        for (const Site& site : *sites)
        {
            object[name].push_back(front::asJson(site));
        }
    }
    object["details"] = detailsAsJson(operation);
    return object;
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
    Printer printer(table, json);
    LogReader reader(table, [&printer](const Operation& operation)
                     { printer.print(operation); });
    reader.read(file, name);
    printer.finish();
    std::cout.flush();
    if (reader.lines() == 0)
    {
        throw tools::Error(name, "holds no line of libvelmora's");
    }
    if (printer.hasUnknown())
    {
        throw tools::Error(name, "not all of it is of " + table.library +
                                     " (build-id " + table.buildId +
                                     "): name the library that wrote it with "
                                     "--library");
    }
    if (printer.count() == 0 && !json)
    {
        std::cout << "nothing was refused\n";
    }
    return true;
}

} // namespace velmora::front
