#include "common/error.hpp"
#include "common/files.hpp"
#include "log_reader.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zlib.h>

namespace velmora::front
{
namespace
{

using testing::ElementsAre;
using testing::HasSubstr;

const CauseTable& table()
{
    static const CauseTable TABLE = []
    {
        CauseTable made{"library", "abc", {}};
        const auto add = [&made](int number, const char* file, Kind kind,
                                 const char* text, const char* message = "",
                                 const char* source = "")
        {
            const std::string name = file;
            made.sites[number] = {
                name + ".cpp", number,
                number % 1000, kind,
                source,        text,
                message,       name != "query" && name != "block"};
        };
        add(1036, "driver", Kind::PASSED_ON, "refused", "", "system_identity");
        add(1041, "driver", Kind::PASSED_ON, "not signed", "", "signature");
        add(1049, "driver", Kind::PASSED_ON, "no hash", "", "query");
        add(1067, "driver", Kind::SUCCESS, "the whole");
        add(3043, "query", Kind::CAUSE, "no such value");
        add(3091, "query", Kind::ANSWER, "a value");
        add(4107, "signature", Kind::CAUSE, "no signature");
        add(5055, "system_identity", Kind::CAUSE, "no identifier");
        add(5085, "system_identity", Kind::CAUSE, "no system is this one");
        add(6205, "digest", Kind::NOTE, "not covered");
        add(8100, "block", Kind::CAUSE, "no time", "no timestamp");
        add(10152, "chain", Kind::CAUSE, "no chain", "failed: error[%d] of %s");
        add(10185, "chain", Kind::PARDON, "no block", "Continuing.", "block");
        return made;
    }();
    return TABLE;
}

/** What is made of a log, an operation a line. */
std::vector<std::string> explained(const std::string& log)
{
    std::vector<std::string> answers;
    const auto keep = [&answers](const Operation& operation)
    {
        answers.push_back(operation.word() + (": " + operation.reason()));
        for (const Site& note : operation.notes)
        {
            answers.back() += ", note " + note.text;
        }
        for (const Site& echo : operation.echoes)
        {
            answers.back() += ", so " + echo.text;
        }
    };
    LogReader reader(table(), keep);
    reader.read(tools::memoryFile(log), "log");
    return reader.objection().empty() ? answers
                                      : std::vector{reader.objection()};
}

std::string compressed(const std::string& text)
{
    const tools::FileDescriptor file = tools::memoryFile();
    gzFile stream = gzdopen(dup(file.get()), "wb");
    gzwrite(stream, text.data(), static_cast<unsigned>(text.size()));
    gzclose(stream);
    lseek(file.get(), 0, SEEK_SET);
    return tools::readAll(file, "log");
}

/** The lines of two processes, mixed, and another program's line between.
 *
 *  @param before, between, behind what stands around process and text */
std::string inForm(const std::string& before, const std::string& between,
                   const std::string& behind)
{
    constexpr std::array<std::pair<const char*, const char*>, 7> ENTRIES{{
        {"412", "Line: 1067 [SUCCESS]"},
        {"413", "Line: 5054 [INFO e.what(): org.Gone]"},
        {"9", "it says Line: 4107 [FAILURE]"},
        {"412", "Line: 4107 [FAILURE]"},
        {"413", "Line: 5055 [FAILURE]"},
        {"413", "Line: 1036 [FAILURE]"},
        {"412", "Line: 1041 [FAILURE]"},
    }};
    std::string log;
    for (const auto& [process, text] : ENTRIES)
    {
        log += before + process + between + text + behind;
    }
    return log;
}

TEST(LogReader, EveryFormGivesTheSameAnswer)
{
    const auto answer = ElementsAre(
        "passed: the whole", "failed: no identifier: org.Gone, so refused",
        "refused: no signature, so not signed");
    const std::string shortForm =
        inForm("Nov 25 04:10:31 bmc updated[", "]: ", "\n");
    for (const std::string& log :
         {shortForm, compressed(shortForm) + compressed("\n"),
          inForm("2026-11-25T04:10:31+00:00 bmc updated[", "]: ", " \r\n"),
          inForm("Nov 25 04:10:31 10.0.0.", " updated[7]: ", "\n"),
          inForm("[12.5] updated[", "]: ", "\n"),
          inForm("\x1b[0;1;39mNov 25 bmc updated[", "]: \x1b[31m", "\x1b[0m\n"),
          inForm("-- No entry --\nWed 2026-11-25 UTC [s=1;i=2]\n    _PID=",
                 "\n    MESSAGE=", "\n    SYSLOG_IDENTIFIER=updated\n"),
          "updated is started\n" +
              inForm(R"({"_PID":")", R"(","MESSAGE":")", "\"}\n"),
          inForm(R"({"log":"bmc updated[)", "]: ", "\\n\"}\n"),
          inForm("{\n\t\"_PID\" : \"", "\",\n\t\"MESSAGE\" : \"", "\"\n}\n")})
    {
        EXPECT_THAT(explained(log), answer) << log;
    }
    EXPECT_THAT(explained("T stderr F Line: 5054 [INFO e.what(): org.Gone]\n"
                          "another program\nLine: 5055 [FAILURE]\n"),
                ElementsAre("failed: no identifier: org.Gone"));
    EXPECT_THAT(explained(R"({"MESSAGE":[76,105,110,101,58,32,52,49,48,55,32,)"
                          R"(91,70,65,73,76,85,82,69,93,27,91,48,109]})"),
                ElementsAre("refused: no signature"));
}

TEST(LogReader, AnotherBuildIsDoubted)
{
    const std::string refusal = "u[1]: Line: 4107 [FAILURE]\n";
    for (const std::string line :
         {"Line: 361 [FAILURE]", "Line: 361 [SUCCESS]", "Line: 1041 [FAILURE]",
          "Line: 4107 [SUCCESS]", "Line: 8100 [FAILURE]",
          "FAILURE: extract.4107: no", "FAILURE: extract.8100: no version",
          "FAILURE: check.10152: Failed in EVP()",
          "Line: 5055 [FAILURE]\nLine: 1041 [FAILURE]",
          "-- Boot 2 --\nu[1]: Line: 1041 [FAILURE]",
          "u[1]: Line: 1041 [FAILURE]\nu[1]: Line: 1041 [FAILURE]",
          "velmora 1, with x, build-id b", "velmora[2]: velmora 1, build-id b"})
    {
        EXPECT_THAT(explained(refusal + line),
                    ElementsAre(testing::AnyOf(HasSubstr("line "),
                                               "the log names the build-id b")))
            << line;
    }
    // The operation that it echoes may be the daemon's own.
    const std::string version = "velmora 1, with x, build-id abc\n";
    const std::string echo = "u[1]: Line: 1041 [FAILURE]\n";
    for (const std::string& start : {version, "velmora[2]: " + version})
    {
        EXPECT_THAT(explained(start + "u[1]: Line: 361 [FAILURE]\n" + echo),
                    ElementsAre(HasSubstr("imitates"), "refused: not signed"));
        EXPECT_THAT(explained(start + echo + "velmora 1, build-id b\n"),
                    ElementsAre("the log names the build-id b"));
    }
    // The text of a package can be there, and in what a parser says.
    EXPECT_THAT(explained("x.xml: line 1: 'b Line: 4107 [FAILURE]\n"
                          "x.xml: line 2: bad URI: Line: 4107 [FAILURE]\n"
                          "error:  cannot create x Line: 4107 [FAILURE]\n"
                          "Line: 5055 [FAILURE]\n"),
                ElementsAre("refused: no identifier"));
    EXPECT_THAT(explained("Line: 5084 [INFO e.what(): the clock]\n"
                          "Line: 5080 [INFO x: 1]\nLine: 5085 [FAILURE]\n"),
                ElementsAre("refused: no system is this one"));
    const std::string bare = "Line: 5080 [INFO x: 1]\n";
    for (const std::string& log :
         {bare + "velmora[2]: " + version, "velmora[2]: " + version + bare})
    {
        EXPECT_THAT(explained(log + "Line: 361 [FAILURE]\n"),
                    ElementsAre("nothing is known of line 361"));
    }
    for (const char* process : {"", "u[1]: ", "velmora[3]: "})
    {
        const std::string before =
            process + std::string("Line: 3091 [SUCCESS]");
        EXPECT_THAT(explained(before + '\n' + process + version + echo),
                    ElementsAre(HasSubstr("1041 passes on what did not fail")));
    }
}

TEST(LogReader, EachEndingHasItsWord)
{
    EXPECT_THAT(explained("Line: 3091 [SUCCESS]\nLine: 3043 [FAILURE]\n"
                          "Line: 1049 [FAILURE]\n"),
                ElementsAre("refused: no hash: no such value, so no hash"));
    EXPECT_THAT(explained("FAILURE: block.8100: no timestamp\n"
                          "FAILURE: chain.10185: Continuing.\n"
                          "FAILURE: chain.10152: failed: error[9] of x\n"),
                ElementsAre("refused: no chain, note no time, note no block"));
    EXPECT_THAT(explained("Line: 6205 [FAILURE]\n"),
                ElementsAre("note: not covered"));
    const std::string comparing = "Line: 5050 [INFO hexSystemIDStr: 0A1B]\n"
                                  "Line: 5142 [INFO xmlXPathNodeNr: 1]\n";
    EXPECT_THAT(explained(comparing + "Line: 5085 [FAILURE]"),
                ElementsAre("refused: no system is this one: "
                            "this machine is 0A1B"));
    EXPECT_THAT(explained(comparing + "Line: 3043 [FAILURE]"),
                ElementsAre(HasSubstr("no verdict: a systemID"),
                            "failed: no such value"));
    // Of a log that is cut, where it judges.
    EXPECT_THAT(explained("Line: 8200 [INFO x: 1]\n"), ElementsAre());
    for (const char* last :
         {"Line: 4078 [INFO signCount: 1]\n", "Line: 4107 [F"})
    {
        EXPECT_THAT(explained(last),
                    ElementsAre("no verdict: its result is not in the log"));
    }
}

TEST(LogReader, HostileLogsCostLittle)
{
    std::string processes;
    for (int pid = 0; pid < 10000; ++pid)
    {
        processes += "x[" + std::to_string(pid) + "]: Line: 4107 [FAILURE]\n";
    }
    EXPECT_THAT(explained(processes), testing::SizeIs(10000));
    explained(std::string(1 << 20, '{'));
    explained("{\"a\":" + std::string(1 << 20, '['));
    const std::string half = compressed(std::string(std::size_t{1} << 27, '0'));
    EXPECT_THROW(explained(half + half + half), tools::Error);
    EXPECT_THROW(explained(half.substr(0, 1000)), tools::Error);
    EXPECT_THROW(explained(compressed("x\n") + "Line: 4107 [FAILURE]\n"),
                 tools::Error);
    // Entries that are cut off, and another program's lines.
    for (const char* cut :
         {"{\"log\":\"Li", "{\"log\":\"Li\nx\n", "{\n\t\"log\" : \"\"\n",
          "{\n\t\"log\" : \"\"\n{\n\t\"log\" : \"\"\n}\n", "Wed [s=1;i=2]\n"})
    {
        EXPECT_THROW(explained("{\"log\":\"x\"}\n" + std::string(cut)),
                     tools::Error)
            << cut;
    }
    EXPECT_NO_THROW(explained("{\"level\":1}\nLine: 4107 [FAILURE]\n{'a'"));
}

} // namespace
} // namespace velmora::front
