#include "support.hpp"
#include "velmora.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>

namespace velmora::test
{
namespace
{

using testing::ElementsAre;
using testing::StartsWith;

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

TEST(Log, AStreamThatThrowsDoesNotEndTheProcess)
{
    struct : std::streambuf
    {
    } takesNothing;
    auto* const buffer = std::cerr.rdbuf(&takesNothing);
    std::cerr.exceptions(std::ios::badbit);
    EXPECT_THROW(ValidateQOR::getStrFromPkgXML("", nullptr, ""),
                 std::ios::failure);
    std::cerr.exceptions(std::ios::goodbit);
    std::cerr.rdbuf(buffer);
}

} // namespace
} // namespace velmora::test
