#pragma once

#include <nlohmann/json.hpp>

#include <string>

/** @file The commands, each of which asks the library and words its answer. */

namespace velmora::front
{

/** Exit status of the program. */
enum class Verdict
{
    accepted = 0,
    refused = 1,
    unchecked = 3,
};

struct Answer
{
    Verdict verdict = Verdict::unchecked;
    /** Why, in one line; for an accepted input, a remark. */
    std::string reason;
    /** What was read, in the order of printing. */
    nlohmann::ordered_json fields = nlohmann::ordered_json::object();
};

/** What the user asked for; each command reads its own part. */
struct Request
{
    bool verbose = false;
    /** What is looked at: a package, directory, image, payload or D-Bus
     *  path. */
    std::string subject;
    /** A second path: destination or manifest directory. */
    std::string directory;
    std::string detail1;
    std::string detail2;
    std::string purpose;
    std::string releaseType;
};

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
