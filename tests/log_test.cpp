#include "support.hpp"

#include <dlfcn.h>

#include <iostream>
#include <map>
#include <set>
#include <sstream>

namespace velmora::test
{
namespace
{

struct Record
{
    std::string file;
    int block = 0;
    int line = 0;
    std::string kind;
    std::string text;

    auto operator<=>(const Record&) const = default;
};

/** The records of FAILURE lines in the library's file. */
std::set<Record> causes()
{
    Dl_info library{};
    dladdr(reinterpret_cast<const void*>(&calculateFileSHA), &library);
    const std::string content = readFile(library.dli_fname);
    std::set<Record> records;
    for (std::size_t at = content.find(".cpp "); at != std::string::npos;
         at = content.find(".cpp ", at + 1))
    {
        const std::size_t start =
            content.find_last_not_of("abcdefghijklmnopqrstuvwxyz_", at - 1) + 1;
        std::istringstream words(content.c_str() + start);
        Record record;
        words >> record.file >> record.block >> record.line >> record.kind >>
            std::ws;
        if (std::getline(words, record.text))
        {
            records.insert(record);
        }
    }
    return records;
}

TEST(Log, ANumberStandsForOneStatement)
{
    std::map<std::string, int> blocks;
    std::map<int, std::string> files;
    std::map<int, Record> statements;
    for (const Record& record : causes())
    {
        EXPECT_EQ(blocks.emplace(record.file, record.block).first->second,
                  record.block)
            << record.file;
        EXPECT_EQ(files.emplace(record.block, record.file).first->second,
                  record.file)
            << record.block;
        EXPECT_TRUE(
            statements.emplace(record.block + record.line, record).second)
            << record.file << " " << record.line;
        EXPECT_LT(record.line, 1000);
        EXPECT_THAT(record.kind,
                    testing::MatchesRegex(
                        "cause|note|success|answer|(echo|pardon):[a-z_]+"));
    }
    EXPECT_GT(statements.size(), 80U);
    EXPECT_THAT(files, testing::SizeIs(13));
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
