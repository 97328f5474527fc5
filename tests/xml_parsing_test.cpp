#include "support.hpp"

#include <libxml/parser.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace velmora::test
{
namespace
{

/** What one descriptor may cost in one call. */
constexpr rlim_t MAX_SECONDS = 1;
constexpr long MAX_KIB = 65'536;
constexpr std::size_t MAX_LINES = 6;
/** The largest document, and the largest that has a document type. */
constexpr std::size_t MAX_SIZE = 262144;
constexpr std::size_t MAX_TYPED_SIZE = 8192;

const std::string MODEL = "<Model systemID='0A1B'/>";
constexpr const char* TOO_LARGE =
    "limit : the document is larger than 262144 bytes";
constexpr const char* TYPED =
    "limit : a document with a document type has more than 8192 bytes";
constexpr const char* ENTITIES =
    "limit : the uses of entities add more than 262144 bytes";
constexpr const char* ATTRIBUTES =
    "limit : an element has more than 1000 attributes";

/** As many of @p unit as fit into @p size between the others. */
std::string fit(std::size_t size, const std::string& head,
                const std::string& unit, const std::string& tail = "</p>")
{
    std::string all = head;
    while (all.size() + unit.size() + tail.size() <= size)
    {
        all += unit;
    }
    return all + tail;
}

std::string typed(const std::string& declarations, const std::string& content)
{
    return "<!DOCTYPE p [" + declarations + "]><p>" + MODEL + content + "</p>";
}

/** Different texts, each between the others. */
std::string numbered(int count, const std::string& before,
                     const std::string& behind)
{
    std::string all;
    for (int i = 0; i < count; ++i)
    {
        all += before + std::to_string(i) + behind;
    }
    return all;
}

class Parsing : public LoggedTest
{
  protected:
    /** What is said of the document: the parser's line, or what is found. */
    std::string check(const std::string& document)
    {
        writeFile(path, document);
        logged(ValidateQOR::validateSytemIdFromPkgXML, path);
        for (const std::string& line : log)
        {
            for (const std::string& mark :
                 {path + ": ", std::string("INFO searchFound: ")})
            {
                if (line.starts_with(mark))
                {
                    return line.substr(mark.size());
                }
            }
        }
        return {};
    }

    const Service service{PLATFORM, systemIdBytes({0x1B, 0x0A})};
    std::string path = scratch / "package.xml";
};

TEST_F(Parsing, NoDocumentCostsMuch)
{
    const std::string choices =
        "<!ATTLIST p a (x" + numbered(20'000, "|n", "") + ") #IMPLIED>";
    const std::pair<std::string, const char*> hostile[] = {
        {fit(20'000'000, "<p>", "<a/>"), TOO_LARGE},
        {"<!-- a -- b -->" + typed(choices, ""), TYPED},
        {typed("<!ENTITY a ''><!ENTITY b '" + fit(4000, "", "&a;", "'>"),
               "<q a='" + fit(400, "", "&b;", "'/>")),
         "li"},
        {typed("<!ENTITY % a ''><!ENTITY % b '" +
                   fit(4000, "", "&#37;a;", "'>") + fit(400, "", "%b;", ""),
               ""),
         "li"},
        {fit(MAX_TYPED_SIZE,
             typed("<!ATTLIST q" + numbered(200, " xmlns:n", " CDATA 'u:v'") +
                       ">",
                   ""),
             "<q/>"),
         ""},
        {"<p" + numbered(20'000, " n", "=''") + "/>", ATTRIBUTES},
        {fit(MAX_SIZE, "<p>" + MODEL, "a<a/>"), "0A1B"},
        {std::string(MAX_SIZE, '<'), "line 1: "}};
    for (const auto& [document, said] : hostile)
    {
        // A limit that fails does not take this process with it.
        const pid_t child = fork();
        if (child == 0)
        {
            const bool slow = std::getenv("VELMORA_TEST_SLOW") != nullptr;
            const rlimit limit{MAX_SECONDS, MAX_SECONDS};
            rusage before{};
            rusage after{};
            getrusage(RUSAGE_SELF, &before);
            const bool right = (slow || setrlimit(RLIMIT_CPU, &limit) == 0) &&
                               check(document).starts_with(said) &&
                               log.size() <= MAX_LINES;
            getrusage(RUSAGE_SELF, &after);
            const long kib = after.ru_maxrss - before.ru_maxrss;
            _exit((right ? 0 : 1) + (slow || kib <= MAX_KIB ? 0 : 2));
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0) << document.substr(0, 300);
    }
}

TEST_F(Parsing, WhatCostsNothingIsAccepted)
{
    std::string wide = "\xFF\xFE";
    for (const char letter : "<p>" + MODEL + "</p>")
    {
        wide += {letter, '\0'};
    }
    const std::string full(MAX_TYPED_SIZE - typed("", "").size(), ' ');
    const std::string large = "<!ENTITY a '" + std::string(5000, 'a') + "'>";
    for (const std::string& document :
         {typed("<!ENTITY a '0A'><!ENTITY b '&a;1&#66;'>", "<q r='&b;'/>&b;"),
          typed("<!ENTITY % x \"<!ENTITY v '0A1B'>\">%x;", "&v;"),
          typed("<!ENTITY u SYSTEM 'file:///etc/passwd'>", ""),
          "<!DOCTYPE p SYSTEM 'p.dtd'><p>" + MODEL + "</p>",
          typed("<!ATTLIST q a CDATA 'd'>" + large, "<q/>&a;&a;&a;&a;"),
          typed("", full), fit(MAX_SIZE, "<p>" + MODEL, "x"),
          fit(MAX_SIZE, "<p>", "<Model systemID='1'/>", MODEL + "</p>"),
          "<p" + numbered(1000, " n", "=''") + ">" + MODEL + "</p>", wide})
    {
        EXPECT_EQ(check(document), "0A1B") << document.substr(0, 300);
    }
    EXPECT_EQ(check(typed("", full + ' ')), TYPED);
    EXPECT_EQ(check(typed(large, fit(300, "", "&a;", ""))), ENTITIES);
    EXPECT_EQ(check("<p" + numbered(1001, " n", "=''") + "/>"), ATTRIBUTES);
    EXPECT_EQ(check(fit(MAX_SIZE + 1, "<p>", "x")), TOO_LARGE);
    EXPECT_EQ(check("<!DOCTYPE p [<!ENTITY v '0A1B &lt;'>]>"
                    "<p><Model systemID='&v;'/></p>"),
              "0A1B <");
}

TEST_F(Parsing, TheGravestComplaintIsOneShortLine)
{
    EXPECT_THAT(check("<c:p>\n<q xmlns:c='&#10;%'>\n</c:p>"),
                StartsWith("line 3: Opening and ending tag mismatch: q line"));
    EXPECT_EQ(check("<p><" + std::string(9000, 'q') + "></p>").size(), 199U);
    EXPECT_THAT(check(std::string(9, '\0')), StartsWith("line 1: "));
}

std::string other;
Lines values;

/** An error function that calls the library again. */
void queryOther(void* /*context*/, const char* /*format*/, ...)
{
    values.push_back(ValidateQOR::getStrFromPkgXML(other, "/p", "a"));
}

// Deprecated, but other parts of a process may still use them.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

TEST_F(Parsing, NothingElseIsReadWhateverTheDefaults)
{
    writeFile(scratch / "secret", "<Model systemID='0A1B'/>");
    xmlSubstituteEntitiesDefault(1);
    xmlDoValidityCheckingDefaultValue = 1;
    EXPECT_EQ(check("<!DOCTYPE p [<!ENTITY s SYSTEM '" +
                    (scratch / "secret").string() + "'>]><p>&s;</p>"),
              "");
    EXPECT_THAT(log, Contains("INFO xmlXPathNodeNr: 0"));
    xmlSubstituteEntitiesDefault(0);
    xmlDoValidityCheckingDefaultValue = 0;

    writeFile(path, "<p>" + MODEL + "</p>");
    ASSERT_EQ(run("gzip -nf " + path + " && mv " + path + ".gz " + path), 0);
    EXPECT_THAT(check(readFile(path)), StartsWith("line 1: "));
}

TEST_F(Parsing, TheProcessKeepsItsFunctions)
{
    other = scratch / "other.xml";
    writeFile(other, "<p a='inner'/>");
    const auto loader = xmlGetExternalEntityLoader();
    const xmlExternalEntityLoader own = [](auto*, auto*, auto*)
    { return static_cast<xmlParserInput*>(nullptr); };
    const xmlMallocFunc atomic = [](std::size_t size)
    { return std::malloc(size); };
    xmlSetExternalEntityLoader(own);
    xmlGcMemSetup(std::free, std::malloc, atomic, std::realloc, strdup);
    xmlSetGenericErrorFunc(&other, queryOther);

    // An unknown prefix, an invalid expression, and a document that is refused.
    writeFile(path, "<p a='outer'><c:q/></p>");
    EXPECT_EQ(ValidateQOR::getStrFromPkgXML(path, "/p", "a"), "outer");
    EXPECT_EQ(ValidateQOR::getStrFromPkgXML(path, "/p[", "a"), "");
    writeFile(path, "<p a='outer'>");
    EXPECT_EQ(ValidateQOR::getStrFromPkgXML(path, "/p", "a"), "");
    EXPECT_GE(values.size(), 3U);
    EXPECT_THAT(values, testing::Each("inner"));

    EXPECT_EQ(xmlGenericErrorContext, &other);
    EXPECT_EQ(xmlGetExternalEntityLoader(), own);
#if LIBXML_VERSION < 21200
    EXPECT_EQ(xmlMallocAtomic, atomic);
#endif
    xmlSetGenericErrorFunc(nullptr, nullptr);
    xmlGcMemSetup(std::free, std::malloc, std::malloc, std::realloc, strdup);
    xmlSetExternalEntityLoader(loader);
}

#pragma GCC diagnostic pop

} // namespace
} // namespace velmora::test
