#include "explain_command.hpp"

#include "common/error.hpp"
#include "common/handles.hpp"
#include "json.hpp"
#include "log_reader.hpp"

#include <fcntl.h>
#include <nlohmann/json.hpp>

#include <iomanip>
#include <iostream>

namespace velmora::front
{

namespace
{

/** The column of the places in the source. */
constexpr int TEXT_WIDTH = 60;

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

void printText(const Operation& operation)
{
    printLine((operation.refused ? "refused: " : "passed: ") +
                  operation.site.text,
              operation.site);
    for (const Site& note : operation.notes)
    {
        printLine("    note: " + note.text, note);
    }
    for (const auto& [name, text, isTelling] : operation.details)
    {
        std::cout << "    " << inWords(name) << ": " << tools::printable(text)
                  << '\n';
    }
    for (const Site& echo : operation.echoes)
    {
        printLine("    so: " + echo.text, echo);
    }
}

nlohmann::ordered_json asJson(const Operation& operation)
{
    nlohmann::ordered_json object;
    object["verdict"] = operation.refused ? "refused" : "passed";
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
    return object;
}

} // namespace

bool explain(const std::string& log, const std::string& library, bool json)
{
    const Causes& causes =
        library.empty() ? linkedCauses() : readCauses(library);
    if (causes.sites.empty())
    {
        throw tools::Error(causes.library,
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
    const char* separator = "[";
    LogReader explainer(causes,
                        [json, &separator](const Operation& operation)
                        {
                            if (!json)
                            {
                                printText(operation);
                                return;
                            }
                            std::cout << separator << asText(asJson(operation));
                            separator = ",\n";
                        });
    explainer.read(file, name);
    if (json)
    {
        std::cout << (*separator == '[' ? "[" : "") << "]\n";
    }
    if (explainer.unknown() > 0)
    {
        std::cout.flush();
        std::cerr << "velmora: " << explainer.unknown() << " of "
                  << explainer.failures() << " failures are not in "
                  << tools::printable(causes.library) << " (build-id "
                  << causes.buildId
                  << "): another build wrote them; name its library with "
                     "--library\n";
    }
    return explainer.unknown() == 0;
}

} // namespace velmora::front
