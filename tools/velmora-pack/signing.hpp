#pragma once

#include <filesystem>
#include <string>
#include <string_view>

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

/** The one line of a success. */
void report(const std::filesystem::path& made, std::string_view what);

} // namespace pack
