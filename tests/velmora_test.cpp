#include "support.hpp"
#include "velmora.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace velmora::test
{
namespace
{

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;

class Package : public testing::Test
{
  protected:
    bool valid()
    {
        bool result = false;
        log = logOf(
            [&] { result = ValidateQOR::validateExtractedQOR(scratch.path); });
        return result;
    }

    Scratch scratch;
    Service service{PLATFORM, systemIdBytes({0x1B, 0x0A})};
    Lines log;
};

TEST_F(Package, ValidPassesInOrder)
{
    makePackage(scratch.path);
    EXPECT_TRUE(valid());
    ASSERT_EQ(log.size(), 24U);
    EXPECT_EQ(log[4], "SUCCESS");
    EXPECT_EQ(log[17], "SUCCESS");
    EXPECT_EQ(log[18], "SUCCESS");
    EXPECT_THAT(log[20], HasSubstr("final sha: "));
    EXPECT_EQ(log[21], "INFO sha256FromPkgXML: " + PackageText().hash);
    EXPECT_EQ(log[22], "INFO sha256FromImage: " + PackageText().hash);
    EXPECT_EQ(log[23], "SUCCESS");
}

TEST_F(Package, EachFailedStepEndsIt)
{
    makePackage(scratch.path, {.model = "<Model systemID=\"1\"/>"});
    EXPECT_FALSE(valid());
    EXPECT_EQ(log.size(), 6U);

    makePackage(scratch.path);
    writeFile(scratch / "package.xml", readFile(scratch / "package.xml") + " ");
    EXPECT_FALSE(valid());
    EXPECT_EQ(log.size(), 5U + 13U + 1U);

    makePackage(scratch.path, {.hash = ""});
    EXPECT_FALSE(valid());
    EXPECT_EQ(log.size(), 5U + 13U + 2U);

    makePackage(scratch.path, {.payload = "abd"});
    EXPECT_FALSE(valid());
    ASSERT_EQ(log.size(), 5U + 13U + 1U + 2U + 3U);
    EXPECT_EQ(log.back(), "FAILURE");

    std::string upper = PackageText().hash;
    upper[0] = 'D';
    makePackage(scratch.path, {.hash = upper});
    EXPECT_FALSE(valid());

    makePackage(scratch.path);
    fs::remove_all(scratch / "payload");
    EXPECT_FALSE(valid());
    EXPECT_EQ(log.size(), 5U + 13U + 1U + 2U);

    EXPECT_THAT(logOf(
                    [&]
                    {
                        EXPECT_FALSE(ValidateQOR::validateExtractedQOR(
                            scratch / "package.xml"));
                    }),
                ElementsAre("FAILURE"));
    makePackage(scratch.path, {.model = "<Model systemID=\"XYZ\"/>"});
    EXPECT_THROW(valid(), std::invalid_argument);
}

TEST_F(Package, ManyValidationsLeaveNothingOpen)
{
    makePackage(scratch.path);
    ASSERT_TRUE(valid());
    const std::size_t before = descriptors();
    for (int i = 0; i < 25; ++i)
    {
        ASSERT_TRUE(valid());
    }
    EXPECT_EQ(descriptors(), before);
}

} // namespace
} // namespace velmora::test
