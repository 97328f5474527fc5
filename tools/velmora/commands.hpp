#pragma once

#include "log_reader.hpp"
#include "velmora.hpp"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>

/** @file The commands, each of which asks the library and words its answer. */

namespace velmora::front
{

/** Exit status of the program. */
enum class Verdict : std::uint8_t
{
    /** Or done, by a command that does not judge. */
    ACCEPTED = 0,
    REFUSED = 1,
    UNCHECKED = 3,
};

struct Answer
{
    Verdict verdict = Verdict::ACCEPTED;
    /** Why, in one line; for an accepted input, a remark. */
    std::string reason;
    /** What the log says of a refusal. */
    Operation refusal = {};
    /** What was read, by names in camelCase, in the order of printing. */
    nlohmann::ordered_json fields = nlohmann::ordered_json::object();
    /** Whether a signature was verified and is good. */
    bool isVerified = false;
};

/** What the user asked for; each command reads its own part. */
struct Request
{
    bool verbose = false;
    bool strict = false;
    /** What a package may unpack to, and what a strict check lets through, in
     *  bytes. */
    std::uint64_t maxSize = std::uint64_t{1} << 30;
    /** In the order of strverscmp(3); empty for none. */
    std::string minVersion;
    /** A package, directory, image, payload or D-Bus path. */
    std::string subject;
    /** A second path: destination or manifest directory. */
    std::string directory;
    std::string detail1;
    std::string detail2;
    ValidateQOR::VersionPurpose purpose{};
    ValidateQOR::ReleaseType releaseType{};
};

/** What to do when a service gives no answer.
 *
 *  @param lookAt the command that tells more of it */
std::string adviceOnBus(const std::string& lookAt);

/** Every command may throw what the library throws; the input is then
 *  unchecked. */
Answer unpack(const Request& request);
Answer validate(const Request& request);
Answer info(const Request& request);
Answer digest(const Request& request);
Answer verifyImage(const Request& request);
Answer verifyPayload(const Request& request);
Answer purpose(const Request& request);
Answer addToInventory(const Request& request);
Answer removeFromInventory(const Request& request);
Answer inventoryModel(const Request& request);

} // namespace velmora::front
