#pragma once

#include "handles.hpp"

#include <gpgme.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace tools
{

using GpgContext = Handle<std::remove_pointer_t<gpgme_ctx_t>, gpgme_release>;
using GpgData = Handle<std::remove_pointer_t<gpgme_data_t>, gpgme_data_release>;
using GpgKey = Handle<std::remove_pointer_t<gpgme_key_t>, gpgme_key_unref>;

/** @param home the GnuPG home; empty, gpg's own
 *  @throws Error when gpg cannot be used, or the home is no directory */
GpgContext gpgContext(const std::filesystem::path& home);

/** What gpg is to read, which must live as long as this. */
GpgData gpgData(std::string_view bytes);

/** The day of seconds since 1970, such as 2024-01-31. */
std::string dayText(std::int64_t seconds);

/** What the keys of a GnuPG home tell about one signature. */
struct SignatureInfo
{
    /** Of the key that made it, or that key's identifier, in capitals. */
    std::string fingerprint;
    /** Of the primary key which that belongs to. This and the next are empty
     *  if the home does not have the key. */
    std::string primary;
    std::string userId;
    /** As GnuPG calls them, such as EdDSA and SHA512. */
    std::string keyAlgorithm;
    std::string digestAlgorithm;
    /** Seconds since 1970. */
    std::int64_t created = 0;
    /** When the signature itself expires; 0 for never. */
    std::int64_t expires = 0;
    /** When the first of both keys expires; 0 for never. */
    std::int64_t keyExpires = 0;
    /** GPG_ERR_NO_ERROR for a good one; the key need not be trusted. */
    gpg_err_code_t status = GPG_ERR_NO_ERROR;
    /** It is good, and the key is fully valid. */
    bool isValid = false;
    /** What speaks against a signature that is not valid. */
    std::string problem;

    /** The primary key's fingerprint, with that of a subkey that signed. */
    std::string name() const;
};

/** Of a file of signatures, in bytes. A larger one holds more than somebody
 *  means, and gpg takes a millisecond for each. */
inline constexpr std::uint64_t LARGEST_SIGNATURE = 65536;

/** Whether it holds signature packets, at most 100, and nothing else: RFC
 *  4880, 4.2.
 *
 *  gpg follows compressed packets, so that a kilobyte can hold thousands of
 *  signatures, each of which takes it a millisecond. */
bool holdsOnlySignatures(std::string_view file);

/** Looks at each detached signature over @p data.
 *
 *  @throws Error when gpg cannot read them */
std::vector<SignatureInfo> signaturesOf(const std::filesystem::path& home,
                                        std::string_view data,
                                        std::string_view signatures);

} // namespace tools
