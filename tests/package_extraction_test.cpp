#include "support.hpp"
#include "velmora.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

namespace velmora::test
{
namespace
{

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;

TEST(Unzip, StopsAtTheFirstFailedExtraction)
{
    const Scratch scratch;
    ASSERT_EQ(run("cd " + scratch.path.string() +
                  " && echo x > package.xml && mkdir out out2"
                  " && zip -q no-payload.zip package.xml"
                  " && mkdir payload && echo y > payload/a"
                  " && zip -qr good.zip package.xml payload"),
              0);
    bool done = false;
    EXPECT_THAT(logOf(
                    [&]
                    {
                        done = ValidateQOR::unZip(scratch / "good.zip",
                                                  scratch / "out");
                    }),
                ElementsAre("SUCCESS"));
    EXPECT_TRUE(done);
    EXPECT_EQ(readFile(scratch / "out/payload/a"), "y\n");

    EXPECT_THAT(
        logOf(
            [&]
            {
                done = ValidateQOR::unZip(scratch / "no-payload.zip",
                                          scratch / "out2");
            }),
        ElementsAre(HasSubstr("payload*"), "INFO pidStatus: 2816", "FAILURE"));
    EXPECT_FALSE(done);
    EXPECT_TRUE(fs::exists(scratch / "out2/package.xml"));
}

TEST(Unzip, AnIgnoredChildCountsAsExtracted)
{
    // The wait fails and leaves the status as it was.
    auto* const before = std::signal(SIGCHLD, SIG_IGN);
    bool done = false;
    logOf([&] { done = ValidateQOR::unZip("/nonexistent", "/tmp"); });
    std::signal(SIGCHLD, before);
    EXPECT_TRUE(done);
}

} // namespace
} // namespace velmora::test
