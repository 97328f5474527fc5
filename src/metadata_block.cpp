#define LOG_BLOCK 8000

#include "metadata_block.hpp"

#include "log.hpp"
#include "velmora.hpp"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

std::string metadata_algo;

std::int32_t velmora::metadata_timestamp = 0;

namespace
{

using namespace velmora;

/** Tokens of a metadata block that are looked at. */
constexpr std::size_t MAX_TOKENS = 30;
constexpr std::string_view KEY_SEPARATOR = ": ";

/** Statuses of extract_meta_data. */
enum MetadataStatus
{
    METADATA_OK = 0,
    METADATA_EMPTY = 9,
    METADATA_NO_VERSION = 10,
    METADATA_NO_TIMESTAMP = 11,
    METADATA_BAD_TIMESTAMP = 12,
    METADATA_NO_ALGORITHM = 13,
};

/** The first tokens between double quotes. The block is overwritten. */
std::vector<std::string> tokenize(std::string& block)
{
    std::vector<std::string> tokens;
    char* rest = nullptr;
    const char* token = strtok_r(block.data(), "\"", &rest);
    while (token != nullptr)
    {
        tokens.emplace_back(token);
        token = tokens.size() < MAX_TOKENS ? strtok_r(nullptr, "\"", &rest)
                                           : nullptr;
    }
    return tokens;
}

/** What the operation takes from the tokens, besides the algorithm. */
class Values
{
  public:
    static constexpr const char* OPERATION = "extract_meta_data";

    /** Sets metadata_algo where an algorithm is named. A key has two tokens
     *  behind it: the separator and the value. */
    explicit Values(const std::vector<std::string>& tokens)
    {
        for (std::size_t i = 0; i + 2 < tokens.size(); ++i)
        {
            const bool separated = tokens[i + 1] == KEY_SEPARATOR;
            const std::string& value = tokens[i + 2];
            if (tokens[i] == "ver")
            {
                PRINT_INFO("Version found...");
                if (separated)
                {
                    version = value;
                }
            }
            else if (tokens[i] == "alg")
            {
                PRINT_INFO("Algorithm found...");
                if (separated)
                {
                    metadata_algo = value;
                    PRINT_INFO("Metadata algorithm is %s", value.c_str());
                }
            }
            else if (tokens[i] == "sts")
            {
                PRINT_INFO("Timestamp found...");
                if (separated)
                {
                    timestamp = value;
                    PRINT_INFO("Metadata timestamp is %s", value.c_str());
                }
            }
        }
    }

    std::string version;
    std::string timestamp;
};

} // namespace

int ValidateQOR::extract_meta_data(std::string& block)
{
    metadata_timestamp = 0;
    std::vector<std::string> tokens = tokenize(block);
    if (tokens.empty())
    {
        PRINT_FAILURE("the metadata block holds no text",
                      "strtok returned nullptr,unable to proceed further");
        return METADATA_EMPTY;
    }
    PRINT_INFO("Total tokens read is %d", static_cast<int>(tokens.size()));
    const Values values(tokens);
    tokens.clear();

    if (values.version.empty())
    {
        PRINT_FAILURE("the metadata block names no version",
                      "Unable to get version from metadata");
        return METADATA_NO_VERSION;
    }
    if (metadata_algo.empty())
    {
        PRINT_FAILURE("no metadata block has named an algorithm",
                      "Unable to get algorithm from metadata");
        return METADATA_NO_ALGORITHM;
    }
    if (values.timestamp.empty())
    {
        PRINT_FAILURE("the metadata block names no signing time",
                      "Unable to get timestamp from metadata");
        return METADATA_NO_TIMESTAMP;
    }
    errno = 0;
    const long long seconds =
        std::strtoll(values.timestamp.c_str(), nullptr, 10);
    // Only the low 32 bits are kept, even where that changes the value.
    metadata_timestamp =
        static_cast<std::int32_t>(static_cast<std::uint32_t>(seconds));
    if (errno != 0 && metadata_timestamp == 0)
    {
        PRINT_FAILURE("the signing time is out of range",
                      "strtoll returned error[%d]", errno);
        return METADATA_BAD_TIMESTAMP;
    }
    PRINT_INFO("timestamp =%d", static_cast<int>(metadata_timestamp));
    PRINT_ANSWER("the metadata block", "Extract metadata successful");
    return METADATA_OK;
}
