#pragma once

#include <cstdint>

namespace velmora
{

/** Signing time of the last metadata block, seconds since the epoch. */
extern std::int32_t metadata_timestamp;

} // namespace velmora
