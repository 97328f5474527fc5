#include "support.hpp"
#include "velmora.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libxml/parser.h>

namespace velmora::test
{
namespace
{

namespace fs = std::filesystem;

class Parsing : public testing::Test
{
  protected:
    /** Value of one attribute in a descriptor with the given content. */
    std::string query(const std::string& xml, const char* expression,
                      const std::string& attribute)
    {
        const fs::path path = scratch / "package.xml";
        writeFile(path, xml);
        std::string value;
        log = logOf(
            [&]
            {
                value =
                    ValidateQOR::getStrFromPkgXML(path, expression, attribute);
            });
        return value;
    }

    Scratch scratch;
    Lines log;
};

TEST_F(Parsing, HostileDocumentsEnd)
{
    // Each entity doubles the one before; the parser's own check misses some
    // of the ways to use them.
    const auto doubling = [](const std::string& mark)
    {
        std::string text = "<!DOCTYPE p [<!ENTITY " + mark + "e0 'ha'>";
        const std::string reference = mark.empty() ? "&e" : "&#37;e";
        for (int i = 1; i < 39; ++i)
        {
            const std::string below = reference + std::to_string(i - 1) + ";";
            text += "<!ENTITY " + mark + "e" + std::to_string(i) + " '" +
                    below + below + "'>";
        }
        return text;
    };
    const std::string entities = doubling("");
    for (const std::string& document :
         {entities + "]><p><q a='&e38;'/></p>",
          entities + "]><p><q b='&e10;'/><q a='&e38;'/></p>",
          entities + "<!ATTLIST q b CDATA '&e10;' a CDATA '&e38;'>]><q/>",
          doubling("% ") + "%e38;]><p><q a='1'/></p>",
          std::string(1'000'000, '<')})
    {
        EXPECT_EQ(query(document, "//q", "a"), "");
        EXPECT_EQ(log.back(), "FAILURE");
    }
    EXPECT_EQ(query("<!DOCTYPE p [<!ENTITY v '1.0'>]><p><q a='&v;'/></p>",
                    "//q", "a"),
              "1.0");
    // A default is no attribute of the element.
    EXPECT_EQ(query("<!DOCTYPE p [<!ATTLIST q a CDATA 'd' b CDATA #FIXED ''>]>"
                    "<p><q/><q a='1'/></p>",
                    "//q", "a"),
              "1");
    writeFile(scratch / "plain", "<p><q a='1'/></p>");
    ASSERT_EQ(run("gzip -c " + (scratch / "plain").string() + " > " +
                  (scratch / "plain.gz").string()),
              0);
    EXPECT_EQ(query(readFile(scratch / "plain.gz"), "//q", "a"), "");
    std::string nested;
    for (int i = 0; i < 300'000; ++i)
    {
        nested += "<q>";
    }
    EXPECT_EQ(query(nested, "//q", "a"), "");

    writeFile(scratch / "secret", "secret");
    // What the process has set is back behind each query.
    const auto loader = xmlGetExternalEntityLoader();
    xmlSetExternalEntityLoader(xmlNoNetExternalEntityLoader);
    xmlSubstituteEntitiesDefault(1);
    EXPECT_EQ(query("<!DOCTYPE p [<!ENTITY s SYSTEM '" +
                        (scratch / "secret").string() +
                        "'>]><p><q a='x'>&s;</q></p>",
                    "//q[contains(., 'secret')]", "a"),
              "");
    xmlSubstituteEntitiesDefault(0);
    EXPECT_EQ(xmlGetExternalEntityLoader(), &xmlNoNetExternalEntityLoader);
    xmlSetExternalEntityLoader(loader);
    std::string many = "<p>";
    for (int i = 0; i < 10'000; ++i)
    {
        many += "<Model systemID='1'/>";
    }
    EXPECT_EQ(query(many + "<Model systemID='0'/></p>",
                    "//Model[@systemID='0']", "systemID"),
              "0");
}

} // namespace
} // namespace velmora::test
