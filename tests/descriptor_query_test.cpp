#include "support.hpp"

namespace velmora::test
{
namespace
{

class Descriptor : public LoggedTest
{
  protected:
    /** Value of one attribute in a descriptor with the given content. */
    std::string query(const std::string& xml, const char* expression,
                      const std::string& attribute)
    {
        const fs::path path = scratch / "package.xml";
        writeFile(path, xml);
        return logged(ValidateQOR::getStrFromPkgXML, path, expression,
                      attribute);
    }
};

TEST_F(Descriptor, FirstNodeWithTheAttributeWins)
{
    const std::string xml = "<p><q/><q b=''/><q a=' x &amp; y '/><q a='z'/>"
                            "<Q a='upper'/></p>";
    EXPECT_EQ(query(xml, "//q", "a"), " x & y ");
    EXPECT_THAT(log, ElementsAre("SUCCESS"));
    EXPECT_EQ(query(xml, "//Q", "a"), "upper");
    // An empty value has a child node, which is empty.
    EXPECT_EQ(query("<p><q a=''/><q a='1'/></p>", "//q", "a"), "");
    EXPECT_THAT(log, ElementsAre("SUCCESS"));
    // A default is no attribute of the element.
    EXPECT_EQ(query("<!DOCTYPE p [<!ATTLIST q a CDATA 'd' b CDATA #FIXED ''>]>"
                    "<p><q/><q a='1'/></p>",
                    "//q", "a"),
              "1");
}

TEST_F(Descriptor, EveryFailureIsOneLine)
{
    const std::string xml = "<p a='1'><q b='2'>text</q></p>";
    for (const auto& [expression, attribute] :
         {std::pair{static_cast<const char*>(nullptr), "a"},
          {"//none", "a"},
          {"//q", "a"},
          {"//q/@b", "b"},
          {"//q/text()", "b"},
          {"count(//q)", "b"},
          {"//q/namespace::*", "b"}})
    {
        EXPECT_EQ(query(xml, expression, attribute), "");
        EXPECT_THAT(log, ElementsAre("FAILURE"));
    }
    // The parser's own lines stand in front.
    EXPECT_EQ(query(xml, "//q[", "b"), "");
    EXPECT_EQ(log.back(), "FAILURE");
    EXPECT_EQ(query("<p><q></p>", "//q", "b"), "");
    EXPECT_EQ(log.back(), "FAILURE");

    fs::create_symlink("loop", scratch / "loop");
    for (const std::string& path :
         {scratch.path.string(), std::string(), (scratch / "loop").string(),
          std::string(5000, 'x')})
    {
        EXPECT_EQ(logged(ValidateQOR::getStrFromPkgXML, path, "//q", "b"), "");
        EXPECT_THAT(log, ElementsAre("FAILURE"));
    }
}

TEST_F(Descriptor, ModelAndVersion)
{
    writeFile(scratch / "package.xml",
              "<p><Device componentID='113440'/><Device componentID='2'/>"
              "<SoftwareComponent/><SoftwareComponent vendorVersion='7.1'/>"
              "</p>");
    EXPECT_EQ(logged(ValidateQOR::getImageModel, scratch.path), "113440");
    EXPECT_EQ(logged(ValidateQOR::getImageVersion, scratch.path.string() + "/"),
              "7.1");
}

} // namespace
} // namespace velmora::test
