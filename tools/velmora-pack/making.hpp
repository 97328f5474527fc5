#pragma once

#include "files.hpp"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace pack
{

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

/** What the arguments say. No command has all of it; what is not given is
 *  empty. */
struct Options
{
    /** What is packed or signed, or signed again. */
    std::filesystem::path input;
    std::filesystem::path output;
    /** The output may replace a file. */
    bool force = false;

    // Where the signature comes from: one of three.
    /** Fingerprints, or one PEM file or pkcs11: URI, as the command says. */
    std::vector<std::string> keys;
    /** A signature that was made elsewhere. */
    std::filesystem::path signature;
    /** Nothing is signed. The bytes to be signed are written here. */
    std::filesystem::path toBeSigned;
    std::filesystem::path passphraseFile;
    Trust trust;

    // Of a package.
    std::string model;
    std::string version;
    std::vector<std::string> systemIds;
    std::filesystem::path gpgHome;
    /** Signed again, its signatures stay, in front of the new ones. */
    bool isAdded = false;

    // Of an image.
    /** Checks a signature that was made elsewhere. */
    std::filesystem::path publicKey;
    /** If given, the input is an image that this key, PEM, has signed. */
    std::filesystem::path oldPublicKey;

    // Of a payload.
    /** The input is a signed payload. Its trailer is replaced, and tells what
     *  chain and algorithm are if they are not given. */
    bool isSigned = false;
    std::filesystem::path chain;
    /** PS256, PS384 or PS512. */
    std::string algorithm;
    std::optional<std::int32_t> timestamp;

    /** 1 or 2; 0 for a manifest without a release marker. */
    unsigned release = 0;

    const std::filesystem::path& made() const
    {
        return toBeSigned.empty() ? output : toBeSigned;
    }

    /** @param inputs further ones
     *  @throws Error when the output must not be made */
    void checkOutput(std::vector<std::filesystem::path> inputs = {}) const
    {
        inputs.insert(inputs.end(),
                      {input, signature, passphraseFile, trust.anchor,
                       publicKey, oldPublicKey, chain, gpgHome});
        inputs.insert(inputs.end(), keys.begin(), keys.end());
        refuseOverwrite(made(), inputs, force);
    }
};

// Each makes what its options say, or throws and leaves nothing behind.
void makePackage(const Options& options);
void makeImage(const Options& options);
void makeManifest(const Options& options);
void makePayload(const Options& options);
/** Signs a package again, from it alone. */
void resignPackage(const Options& options);
/** A descriptor.
 *
 *  @param digest the composite digest of the payload
 *  @throws Error unless model and version are text that a parser keeps */
Buffer writeDescriptor(const Options& options, const std::string& digest);
/** A complete set of keys and certificates for trying things out. */
void makeTestKeys(const Options& options);

} // namespace pack
