#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

namespace bmc_sim
{

/** The public half of the key in a PEM file (public key, private key or
 *  certificate) as a DER SubjectPublicKeyInfo. The file is read from `file`
 *  and called `name` in a message. */
std::vector<std::uint8_t> readSignerKey(const std::filesystem::path& name,
                                        const std::filesystem::path& file);

} // namespace bmc_sim
