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

/** Whether a file has a payload's chain where that belongs, and metadata too if
 *  that is asked for. */
bool hasTrailer(const Source& file, bool withMetadata);
nlohmann::ordered_json describePayload(const Source& file, Remarks& remarks);

} // namespace pack
