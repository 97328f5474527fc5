#pragma once

#include "files.hpp"
#include "signing.hpp"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace pack
{

struct PayloadOptions
{
    std::filesystem::path input;
    std::filesystem::path chain;
    /** PS256, PS384 or PS512. */
    std::string algorithm;
    std::optional<std::int32_t> timestamp;
    Trust trust;
    Signing signing;
};

void makePayload(const PayloadOptions& options);

/** What of a trailer a file has at its end. */
struct PayloadMarks
{
    bool chain = false;
    bool metadata = false;
};
PayloadMarks payloadMarks(const Source& file);
nlohmann::ordered_json describePayload(const Source& file, Remarks& remarks);

} // namespace pack
