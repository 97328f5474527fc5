#pragma once

#include "error.hpp"

#include <filesystem>
#include <string>

namespace pack
{

/** Where a signature comes from, of which exactly one is given, and where what
 *  is made goes. */
struct Signing
{
    /** A fingerprint, a PEM file or a pkcs11: URI, as the command says. */
    std::string key;
    std::filesystem::path passphraseFile;
    /** A signature that was made elsewhere. */
    std::filesystem::path signature;
    /** Nothing is signed. The bytes to be signed are written here. */
    std::filesystem::path toBeSigned;
    std::filesystem::path output;
    /** The output may replace a file. */
    bool force = false;

    const std::filesystem::path& made() const
    {
        return toBeSigned.empty() ? output : toBeSigned;
    }
};

/** How keys and certificates are looked at: as the machine will do, if it is
 *  known what that trusts. */
struct Trust
{
    /** The machine's keyring or root CA; may be empty. */
    std::filesystem::path anchor;
    /** Days for which they must still be valid. */
    int days = 30;

    /** Refuses when an anchor is given, and warns otherwise. */
    void object(std::string_view subject, std::string_view what) const
    {
        if (!anchor.empty())
        {
            throw Error(subject, what);
        }
        warn(subject, what);
    }
};

} // namespace pack
