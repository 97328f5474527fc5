#include "support.hpp"

#include <iostream>

namespace velmora::test
{
namespace
{

/** Lines of the log up to the end of each step that passes. */
constexpr std::size_t IDENTITY = 5;
constexpr std::size_t UP_TO_SIGNATURE = IDENTITY + SIGNATURE_LINES + 1;
constexpr std::size_t UP_TO_QUERY = UP_TO_SIGNATURE + 1;
constexpr std::size_t UP_TO_DIGEST = UP_TO_QUERY + 2;

class Package : public LoggedTest
{
  protected:
    bool valid()
    {
        return logged(ValidateQOR::validateExtractedQOR, scratch.path);
    }

    Service service{PLATFORM, systemIdBytes({0x1B, 0x0A})};
};

TEST_F(Package, ValidPassesInOrder)
{
    makePackage(scratch.path);
    EXPECT_TRUE(valid());
    ASSERT_GT(log.size(), UP_TO_DIGEST);
    for (const std::size_t step : {IDENTITY, UP_TO_SIGNATURE, UP_TO_QUERY})
    {
        EXPECT_EQ(log[step - 1], "SUCCESS");
    }
    EXPECT_THAT(log[UP_TO_DIGEST - 1], HasSubstr("final sha: "));
    EXPECT_THAT(Lines(log.begin() + UP_TO_DIGEST, log.end()),
                ElementsAre("INFO sha256FromPkgXML: " + PackageText().hash,
                            "INFO sha256FromImage: " + PackageText().hash,
                            "SUCCESS"));
}

TEST_F(Package, EachFailedStepEndsIt)
{
    const auto endsAfter = [this](std::size_t lines)
    {
        EXPECT_FALSE(valid());
        EXPECT_EQ(log.size(), lines + 1);
    };
    makePackage(scratch.path, {.model = "<Model systemID=\"1\"/>"});
    endsAfter(IDENTITY);
    makePackage(scratch.path);
    writeFile(scratch / "package.xml", readFile(scratch / "package.xml") + " ");
    endsAfter(UP_TO_SIGNATURE);
    makePackage(scratch.path, {.hash = ""});
    endsAfter(UP_TO_QUERY);
    makePackage(scratch.path);
    fs::remove_all(scratch / "payload");
    endsAfter(UP_TO_QUERY + 1);

    makePackage(scratch.path, {.payload = "abd"});
    EXPECT_FALSE(valid());
    EXPECT_THAT(Lines(log.begin() + UP_TO_DIGEST, log.end()),
                ElementsAre(StartsWith("INFO sha256FromPkgXML: "),
                            StartsWith("INFO sha256FromImage: "), "FAILURE"));

    std::string upper = PackageText().hash;
    upper[0] = 'D';
    makePackage(scratch.path, {.hash = upper});
    EXPECT_FALSE(valid());

    EXPECT_FALSE(
        logged(ValidateQOR::validateExtractedQOR, scratch / "package.xml"));
    EXPECT_THAT(log, ElementsAre("FAILURE"));
}

TEST(Log, StreamStateOfTheProcessDoesNotMatter)
{
    const auto flags = std::cerr.flags();
    std::cerr << std::hex << std::showbase << std::showpos;
    std::cerr.width(30);
    std::cerr.fill('*');
    const auto hostile = std::cerr.flags();
    EXPECT_THAT(
        logOf([] { ValidateQOR::unZip("/nonexistent", "/tmp"); }),
        ElementsAre(StartsWith("unzip:"), "INFO pidStatus: 2304", "FAILURE"));
    EXPECT_EQ(std::cerr.flags(), hostile);
    EXPECT_EQ(std::cerr.width(), 30);
    std::cerr.flags(flags);
    std::cerr.width(0);
    std::cerr.fill(' ');
}

} // namespace
} // namespace velmora::test
