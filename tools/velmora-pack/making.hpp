#pragma once

#include "files.hpp"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace pack
{

/** Where a signature comes from, of which exactly one is given, and where what
 *  is made goes. */
struct Signing
{
    /** Fingerprints, or one PEM file or pkcs11: URI, as the command says. */
    std::vector<std::string> keys;
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

    /** @param inputs what else the output is made from
     *  @throws Error when it must not take the place of what is there */
    void expectNewOutput(std::vector<std::filesystem::path> inputs) const
    {
        inputs.insert(inputs.end(), {passphraseFile, signature});
        inputs.insert(inputs.end(), keys.begin(), keys.end());
        refuseOverwrite(made(), inputs, force);
    }
};

/** How keys and certificates are checked: as the machine does, when its keyring
 *  or root CA is given. */
struct Trust
{
    /** The machine's keyring or root CA; may be empty. */
    std::filesystem::path anchor;
    /** Days for which they must still be valid. */
    int days = 30;

    /** Refuses when an anchor is given, and warns otherwise. */
    void refuseOrWarn(std::string_view subject, std::string_view what) const
    {
        if (!anchor.empty())
        {
            throw Error(subject, what);
        }
        warn(subject, what);
    }
};

struct PackageOptions
{
    /** A file, or a directory of files. */
    std::filesystem::path payload;
    std::string model;
    std::string version;
    std::vector<std::string> systemIds;
    /** Empty: gpg's own. */
    std::filesystem::path gpgHome;
    Trust trust;
    Signing signing;
};

struct ImageOptions
{
    std::filesystem::path input;
    /** If given, the input is an image that this key, PEM, has signed. */
    std::filesystem::path oldPublicKey;
    /** Checks a signature that was made elsewhere. */
    std::filesystem::path publicKey;
    Signing signing;
};

struct ManifestOptions
{
    /** 1 or 2; 0 for a manifest without a release marker. */
    unsigned release = 0;
    std::filesystem::path output;
};

struct PayloadOptions
{
    std::filesystem::path input;
    /** The input is a signed payload. Its trailer is replaced, and tells what
     *  chain and algorithm are if they are not given. */
    bool isSigned = false;
    std::filesystem::path chain;
    /** PS256, PS384 or PS512. */
    std::string algorithm;
    std::optional<std::int32_t> timestamp;
    Trust trust;
    Signing signing;
};

// Each makes what its options say, or throws and leaves nothing behind.
void makePackage(const PackageOptions& options);
void makeImage(const ImageOptions& options);
void makeManifest(const ManifestOptions& options);
void makePayload(const PayloadOptions& options);
/** Signs the package again that is the options' payload.
 *
 *  @param isAdded its signatures stay, in front of the new ones */
void resignPackage(const PackageOptions& options, bool isAdded);
/** A complete set of keys and certificates for trying things out. */
void makeTestKeys(const std::filesystem::path& directory);

} // namespace pack
