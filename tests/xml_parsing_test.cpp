#include "support.hpp"

#include <fcntl.h>
#include <libxml/parser.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <iostream>
#include <sstream>

namespace velmora::test
{
namespace
{

// Deprecated, but other parts of a process may still use it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
void substituteEntities(int on) { xmlSubstituteEntitiesDefault(on); }
#pragma GCC diagnostic pop

/** What one descriptor may cost in one call. */
constexpr std::clock_t MAX_TICKS = 2 * CLOCKS_PER_SEC;
constexpr long MAX_KIB = 65'536;
constexpr long MAX_LINES = 1000;
/** The largest document that is parsed. */
constexpr std::size_t MAX_SIZE = 262144;
/** The most line breaks that references may make. */
constexpr std::size_t MAX_LINE_BREAKS = 512;

const std::string MODEL = "<Model systemID='0A1B'/>";
constexpr const char* TOO_LARGE = "the document is larger than 262144 bytes";
constexpr const char* TOO_LARGE_TYPE =
    "a document type, or what follows an error, is larger than 8192 bytes";
constexpr const char* ADDED = "entities, defaults and line breaks add too much";
constexpr const char* ATTRIBUTES = "an element has more than 1000 attributes";

std::string repeat(std::size_t count, const std::string& text)
{
    std::string all;
    while (count-- > 0)
    {
        all += text;
    }
    return all;
}

/** As many of @p unit as fit between the others. */
std::string fit(const std::string& head, const std::string& unit,
                const std::string& tail)
{
    return head +
           repeat((MAX_SIZE - head.size() - tail.size()) / unit.size(), unit) +
           tail;
}

std::string inDocument(const std::string& content)
{
    return "<p>" + MODEL + content + "</p>";
}

std::string typed(const std::string& declarations, const std::string& content)
{
    return "<!DOCTYPE p [" + declarations + "]>" + inDocument(content);
}

std::string filled(const std::string& declarations, const std::string& unit)
{
    return fit("<!DOCTYPE p [" + declarations + "]><p>" + MODEL, unit, "</p>");
}

/** @p count pieces, each with a short name of its own between the others. */
std::string named(std::size_t count, const std::string& before,
                  const std::string& behind)
{
    constexpr std::string_view LETTERS = "abcdefghijklmnopqrstuvwyzABCDEFGHIJK";
    std::string all;
    for (std::size_t i = 0; i < count; ++i)
    {
        all += before;
        for (std::size_t rest = i + LETTERS.size(); rest > 0;
             rest /= LETTERS.size())
        {
            all += LETTERS[rest % LETTERS.size()];
        }
        all += behind;
    }
    return all;
}

/** Entities of which each holds the one before twice. */
std::string doubling(const std::string& mark = "")
{
    std::string text = "<!ENTITY " + mark + "e0 'ha'>";
    for (int i = 1; i < 39; ++i)
    {
        const std::string below =
            (mark.empty() ? "&e" : "&#37;e") + std::to_string(i - 1) + ";";
        text += "<!ENTITY " + mark + "e" + std::to_string(i) + " '" + below +
                below + "'>";
    }
    return text;
}

/** Declarations that a parameter entity repeats. */
std::string inParameter(const std::string& before, const std::string& list,
                        const std::string& behind)
{
    return "<!ENTITY % e '" + list + "'><!ENTITY % x '" + before +
           repeat(66, "&#37;e;") + behind + "'>%x;";
}

struct Hostile
{
    const char* name;
    std::string document;
    /** The limit that ends the parse; null where the parser's releases differ.
     */
    const char* limit = nullptr;
};
const std::string NAMES = named(1000, "|", "").substr(1);
const std::string LINE_BREAKS = repeat(300, "&#10;");
const std::string MANY_CHOICES =
    "<!ATTLIST p a (x" + named(53'000, "|", "") + ") #IMPLIED>";
const Hostile HOSTILE[] = {
    {"ID declarations",
     typed(named(2000, "<!ATTLIST p ", " ID #IMPLIED>"), "")},
    {"attributes", inDocument("<q" + named(1001, " ", "=''") + "/>"),
     ATTRIBUTES},
    {"attributes that fit", inDocument("<q" + named(28'000, " ", "=''") + "/>"),
     ATTRIBUTES},
    {"the same attribute", fit("<p>" + MODEL + "<q", " a=''", "/></p>")},
    {"choices behind an error", typed("<!ENTITY b '&#0;'>" + MANY_CHOICES, "")},
    {"choices behind an error before the type",
     "<!-- a -- b -->" + typed(MANY_CHOICES, "")},
    {"choices that fit", typed("<!ATTLIST p a (" + NAMES + ") #IMPLIED>", "")},
    {"repeated choices",
     typed(inParameter("<!ATTLIST p q (", NAMES + "|", "x) #IMPLIED>"), "")},
    {"repeated content",
     typed(inParameter("<!ELEMENT p (", NAMES + "|", "x)*>"), "")},
    {"a large document type", typed(repeat(60'000, "<!---->"), ""),
     TOO_LARGE_TYPE},
    {"20 MB", inDocument(repeat(5'000'000, "<a/>")), TOO_LARGE},
    {"elements that fit", fit("<p>" + MODEL, "<a/>", "</p>")},
    {"texts that fit", fit("<p>" + MODEL, "a<a/>", "</p>")},
    {"entities in an attribute", typed(doubling(), "<q a='&e38;'/>"), ADDED},
    {"small ones first", typed(doubling(), "<q b='&e10;'/><q a='&e38;'/>"),
     ADDED},
    {"entities in content", typed(doubling(), "<q>&e38;</q>"), ADDED},
    {"entities in a default",
     typed(doubling() + "<!ATTLIST q a CDATA '&e38;'>", "<q/>"), ADDED},
    {"parameter entities", typed(doubling("% ") + "%e38;", "")},
    {"an entity in itself",
     typed("<!ENTITY a '&b;'><!ENTITY b '&a;'>", "<q a='&a;'/>"), ADDED},
    {"a parameter entity in itself",
     typed("<!ENTITY % a '&#37;b;'><!ENTITY % b '&#37;a;'>%a;", "")},
    {"a large entity",
     filled("<!ENTITY a '" + std::string(7000, 'x') + "'>", "&a;"), ADDED},
    {"an empty entity", filled("<!ENTITY a ''>", "&a;"), ADDED},
    {"defaults",
     filled("<!ATTLIST q " + named(500, " ", " CDATA ''") + ">", "<q/>"),
     ADDED},
    {"a large default",
     typed("<!ATTLIST q a CDATA '" + std::string(7000, 'd') + "'>",
           repeat(100, "<q/>")),
     ADDED},
    {"namespaces by default",
     filled("<!ATTLIST q" + named(300, " xmlns:", " CDATA 'u:v'") + ">",
            "<q/>")},
    {"a large namespace by default",
     filled("<!ATTLIST q xmlns CDATA 'u:" + std::string(3000, 'v') + "'>",
            "<q/>")},
    {"namespaces", fit("<p" + named(8000, " xmlns:", "='u:v'") + ">" + MODEL,
                       "<a:b/>", "</p>")},
    {"unknown namespaces", fit("<p>" + MODEL, "<a:b/>", "</p>")},
    {"unknown entities", fit("<!DOCTYPE p SYSTEM 'x'><p>", "&x;", "</p>")},
    {"long messages", inDocument(repeat(95, "<a:b/>") + "<b xmlns:a='" +
                                 repeat(7, LINE_BREAKS) + "'/>")},
    {"line breaks",
     "<p><Model systemID='0A1B" + repeat(MAX_LINE_BREAKS + 1, "&#10;") +
         "'/></p>",
     ADDED},
    {"line breaks and messages", "<p>" + repeat(95, "<a:b/>") +
                                     "<Model systemID='0A1B" + LINE_BREAKS +
                                     "'/></p>"},
    {"line breaks in an entity",
     "<!DOCTYPE p [<!ENTITY a '&#38;#10;'><!ENTITY b '0A1B" +
         repeat(1200, "&a;") + "'>]><p><Model systemID='&b;'/></p>",
     ADDED},
    {"nested elements", inDocument(repeat(300'000, "<q>"))},
    {"markup", std::string(1'000'000, '<')}};

class Parsing : public testing::Test
{
  protected:
    struct Cost
    {
        std::clock_t ticks = 0;
        long kib = 0;
        long lines = 0;
    };

    /** Checks the system in a process of its own, which a limit that fails
     *  does not take with it. */
    Cost check(const std::string& document)
    {
        writeFile(path, document);
        const pid_t child = fork();
        if (child == 0)
        {
            const int file = creat((scratch / "log").c_str(), 0600);
            if (file < 0 || dup2(file, STDERR_FILENO) < 0)
            {
                _exit(1);
            }
            rusage before{};
            getrusage(RUSAGE_SELF, &before);
            const std::clock_t start = std::clock();
            try
            {
                ValidateQOR::validateSytemIdFromPkgXML(path);
            }
            catch (const std::exception& refusal)
            {
                std::cerr << refusal.what() << '\n';
            }
            const std::clock_t end = std::clock();
            rusage after{};
            getrusage(RUSAGE_SELF, &after);
            writeFile(scratch / "cost",
                      std::to_string(end - start) + " " +
                          std::to_string(after.ru_maxrss - before.ru_maxrss));
            _exit(0);
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
        log = readFile(scratch / "log");
        Cost cost{.lines = std::count(log.begin(), log.end(), '\n')};
        std::istringstream(readFile(scratch / "cost")) >> cost.ticks >>
            cost.kib;
        return cost;
    }

    const Service service{PLATFORM, systemIdBytes({0x1B, 0x0A})};
    Scratch scratch;
    std::string path = scratch / "package.xml";
    std::string log;
};

TEST_F(Parsing, NoDocumentCostsMuch)
{
    const bool measured = std::getenv("VELMORA_TEST_SLOW") == nullptr;
    for (const auto& [name, document, limit] : HOSTILE)
    {
        SCOPED_TRACE(name);
        const Cost cost = check(document);
        EXPECT_LE(cost.lines, MAX_LINES);
        if (measured)
        {
            EXPECT_LE(cost.ticks, MAX_TICKS);
            EXPECT_LE(cost.kib, MAX_KIB);
        }
        if (limit != nullptr)
        {
            EXPECT_THAT(log, HasSubstr("\n" + path + ": limit : " + limit +
                                       "\nLine: "));
            EXPECT_TRUE(log.ends_with(" [FAILURE]\n"));
        }
    }
}

TEST_F(Parsing, WhatCostsNothingIsAccepted)
{
    const auto entity = [](const std::string& declarations)
    {
        return "<!DOCTYPE p [" + declarations +
               "]><p><Model systemID='&v;'/></p>";
    };
    std::string wide = "\xFF\xFE";
    for (const char letter : inDocument(""))
    {
        wide += {letter, '\0'};
    }
    struct Accepted
    {
        std::string document;
        std::string value = "0A1B";
    };
    const Accepted accepted[] = {
        {entity("<!ENTITY v '0A1B &amp; as much as stands in a line'>"),
         "0A1B & as much as stands in a line"},
        {entity("<!ENTITY v '0A&#49;B'>")},
        {entity("<!ENTITY a '0A'><!ENTITY b '&a;1B'><!ENTITY v '&b; '>"),
         "0A1B "},
        {entity("<!ENTITY % x \"<!ENTITY v '0A1B'>\">%x;")},
        {entity("<!ENTITY lt '&#38;#60;'><!ENTITY gt '&#62;'>"
                "<!ENTITY amp '&#38;#38;'><!ENTITY apos '&#39;'>"
                "<!ENTITY quot '&#34;'>"
                "<!ENTITY v '0A1B&lt;&gt;&amp;&apos;&quot;'>"),
         "0A1B<>&'\""},
        {typed("<!ENTITY % x 'y'><!ENTITY % z SYSTEM 'file:///etc/passwd'>"
               "<!ENTITY u SYSTEM 'file:///etc/passwd'>",
               "")},
        {"<!DOCTYPE p SYSTEM 'p.dtd'>" + inDocument("")},
        {typed("<!ATTLIST q d CDATA '" + std::string(500, 'd') + "'>", "<q/>")},
        {typed("<!ATTLIST q" + named(20, " ", " CDATA 'd'") + ">", "<q/>")},
        {"<p>" + repeat(5000, "<Model systemID='1'/>") + MODEL + "</p>"},
        {inDocument(std::string(MAX_SIZE - inDocument("").size(), 'x'))},
        {inDocument("<q" + named(1000, " ", "=''") + "/>")},
        {"<p><Model systemID='0A1B" + repeat(MAX_LINE_BREAKS, "&#10;") +
             "'/></p>",
         "0A1B" + std::string(MAX_LINE_BREAKS, '\n')},
        {wide}};
    for (const auto& [document, value] : accepted)
    {
        check(document);
        EXPECT_THAT(log, HasSubstr(" [INFO searchFound: " + value + "]\n"))
            << document.substr(0, 300);
    }
    check(inDocument(std::string(MAX_SIZE, 'x')));
    EXPECT_THAT(log, HasSubstr(TOO_LARGE));
}

TEST_F(Parsing, NothingElseIsReadOrDecompressed)
{
    writeFile(path, inDocument(""));
    ASSERT_EQ(run("gzip -nf " + path + " && mv " + path + ".gz " + path), 0);
    check(readFile(path));
    EXPECT_TRUE(log.ends_with(" [FAILURE]\n"));

    writeFile(scratch / "secret", "<Model systemID='0A1B'/>");
    writeFile(path, "<!DOCTYPE p [<!ENTITY s SYSTEM '" +
                        (scratch / "secret").string() +
                        "'>]><p><q a='x'>&s;</q></p>");
    // After each query the process's own settings are back.
    static const auto loader = xmlGetExternalEntityLoader();
    const xmlExternalEntityLoader own =
        [](const char* url, const char* id, xmlParserCtxtPtr context)
    { return loader(url, id, context); };
    xmlSetExternalEntityLoader(own);
    substituteEntities(1);
    logOf(
        [this]
        {
            EXPECT_EQ(
                ValidateQOR::getStrFromPkgXML(path, "//Model", "systemID"), "");
        });
    substituteEntities(0);
    EXPECT_EQ(xmlGetExternalEntityLoader(), own);
    xmlSetExternalEntityLoader(loader);
}

} // namespace
} // namespace velmora::test
