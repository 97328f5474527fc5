#include "support.hpp"

#include <tuple>

namespace velmora::test
{
namespace
{

class Metadata : public LoggedTest
{
  protected:
    int extract(std::string text)
    {
        text.resize(METADATA);
        int status = -1;
        log = logOf([&] { status = ValidateQOR::extract_meta_data(text); });
        EXPECT_EQ(text.size(), METADATA);
        block = text;
        return status;
    }

    static std::string field(const std::string& key, const std::string& value)
    {
        return "\"" + key + "\": \"" + value + "\", ";
    }

    static std::string info(const std::string& text)
    {
        return "INFO extract_meta_data: " + text;
    }

    const std::string failure = "FAILURE extract_meta_data: ";
    const std::string version = field("ver", "1");
    const std::string algorithm = field("alg", "PS384");
    std::string block;
};

TEST_F(Metadata, ExampleBlock)
{
    metadata_algo.clear();
    EXPECT_EQ(extract(R"({"ver": "1", "alg": "PS384", "sts": "1700000000"})"),
              0);
    EXPECT_EQ(metadata_algo, "PS384");
    EXPECT_THAT(
        log,
        ElementsAre(info("Total tokens read is 13"), info("Version found..."),
                    info("Algorithm found..."),
                    info("Metadata algorithm is PS384"),
                    info("Timestamp found..."),
                    info("Metadata timestamp is 1700000000"),
                    info("timestamp =1700000000"),
                    "SUCCESS extract_meta_data: Extract metadata successful"));
    EXPECT_EQ(block.substr(0, 6), std::string("{\0ver\0", 6));
}

TEST_F(Metadata, StatusesInTheirOrder)
{
    metadata_algo.clear();
    EXPECT_EQ(extract(""), 9);
    EXPECT_EQ(log.back(), failure + "strtok returned nullptr,unable to proceed "
                                    "further");
    EXPECT_EQ(extract("\"\"\"\""), 9);
    std::string none;
    logOf([&] { EXPECT_EQ(ValidateQOR::extract_meta_data(none), 9); });
    EXPECT_EQ(extract("{}"), 10);
    EXPECT_EQ(extract("\"ver\":\"1\"," + algorithm + field("sts", "1")), 10);
    EXPECT_THAT(log, Contains(info("Version found...")));
    EXPECT_EQ(log.back(), failure + "Unable to get version from metadata");
    metadata_algo.clear();
    EXPECT_EQ(extract(version + field("sts", "1")), 13);
    EXPECT_EQ(log.back(), failure + "Unable to get algorithm from metadata");
    EXPECT_EQ(extract(version + algorithm + "\"sts\": 17"), 11);
    EXPECT_EQ(log.back(), failure + "Unable to get timestamp from metadata");
    // The algorithm of an earlier block is kept.
    EXPECT_EQ(extract(version + field("sts", "1")), 0);
    EXPECT_EQ(metadata_algo, "PS384");
}

TEST_F(Metadata, TimestampsKeepTheirLowBits)
{
    for (const auto& [text, status, line] :
         {std::tuple{"17xyz", 0, info("timestamp =17")},
          {"010", 0, info("timestamp =10")},
          {"xyz", 0, info("timestamp =0")},
          {"99999999999999999999", 0, info("timestamp =-1")},
          {"-99999999999999999999", 12, failure + "strtoll returned error[34]"},
          {"4294967296", 0, info("timestamp =0")},
          {"4294967295", 0, info("timestamp =-1")}})
    {
        EXPECT_EQ(extract(version + algorithm + field("sts", text)), status)
            << text;
        EXPECT_THAT(log, Contains(line));
    }
}

TEST_F(Metadata, TokensAndKeys)
{
    EXPECT_EQ(extract(version + field("sts", "1") + field("alg", "PS256") +
                      field("alg", "PS512") + "\"alg\" : \"no\""),
              0);
    EXPECT_EQ(metadata_algo, "PS512");
    // The tenth field's value is the 31st token.
    std::string many = "{";
    for (int i = 0; i < 7; ++i)
    {
        many += field("x", "y");
    }
    EXPECT_EQ(extract(many + field("ver", "1")), 10);
    EXPECT_THAT(log, Contains(info("Total tokens read is 30")));
    EXPECT_EQ(extract(std::string(METADATA, '"') + "x"), 9);
    EXPECT_EQ(extract(std::string(METADATA, 'x')), 10);
    EXPECT_EQ(extract(field("ver", "1") + "\"alg\": "), 10 + 1);
}

} // namespace
} // namespace velmora::test
