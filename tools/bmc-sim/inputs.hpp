#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace bmc_sim
{

/** A file that the user hands in. */
struct InputFile
{
    InputFile() = default;
    InputFile(const std::string& path) : name(path), file(path) {}

    /** As the user knows it. */
    std::filesystem::path name;
    /** Where it can be read: the sandbox has a copy. */
    std::filesystem::path file;
};

/** Imports public keys into the library's keyring and gives them ultimate
 *  trust, so that their signatures are fully valid. */
void importKeys(const std::vector<InputFile>& files);

/** Puts the secure-boot root CA in its place.
 *
 *  @throws Error when it is no certificate */
void placeRootCa(const InputFile& certificate);

/** The public half of the key in a PEM file (public key, private key or
 *  certificate) as a DER SubjectPublicKeyInfo. */
std::vector<std::uint8_t> readSignerKey(const InputFile& key);

} // namespace bmc_sim
