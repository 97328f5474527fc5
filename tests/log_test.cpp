#include "support.hpp"

#include <iostream>

namespace velmora::test
{
namespace
{

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
