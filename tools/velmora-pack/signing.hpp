#pragma once

#include <filesystem>
#include <string>

namespace pack
{

/** Where a signature comes from; exactly one of the three is given. */
struct Signing
{
    /** A fingerprint or a PEM file, as the command says. */
    std::string key;
    /** A signature that was made elsewhere. */
    std::filesystem::path signature;
    /** Nothing is signed: this file receives what is to be. */
    std::filesystem::path toBeSigned;
};

} // namespace pack
