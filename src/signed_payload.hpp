#pragma once

#include <cstddef>
#include <cstdint>

namespace velmora
{

/** Parts of a signed payload's trailer, in bytes. */
constexpr std::size_t CHAIN_SIZE = 24576;
constexpr std::size_t METADATA_SIZE = 512;
constexpr std::size_t SLOT_SIGNATURE_SIZE = 512;
constexpr std::int64_t TRAILER_SIZE = 76800;

} // namespace velmora
