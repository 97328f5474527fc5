#pragma once

#include "bytes.hpp"
#include "error.hpp"

#include <nlohmann/json.hpp>

#include <cstdint>

namespace pack
{

/** No detached signature of a descriptor comes near it, in bytes. */
inline constexpr std::uint64_t LARGEST_SIGNATURE = 64U << 10;

/** The fields of the OpenPGP signatures in a detached, binary signature. */
nlohmann::ordered_json describeSignatures(Bytes file, Remarks& remarks);

} // namespace pack
