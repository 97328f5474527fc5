#pragma once

#include "bytes.hpp"
#include "error.hpp"

#include <gpgme.h>

#include <filesystem>
#include <string>
#include <type_traits>

namespace pack
{

/** Whether both texts name one key; fingerprints are written in any case. */
bool sameFingerprint(const std::string& left, const std::string& right);

/** One GnuPG home directory, worked on by the gpg engine. */
class OpenPgp
{
  public:
    /** An empty path stands for gpg's own home. */
    explicit OpenPgp(std::filesystem::path home);

    /** Detached and binary. The full fingerprint names the primary key. */
    Buffer sign(const std::string& fingerprint, Bytes data);
    /** The fingerprint of the primary key that made the first good signature;
     *  throws when there is none. Warns of a key that soon expires. */
    std::string verify(Bytes data, Bytes signature);

    /** Makes a signing key without a passphrase; gives its fingerprint. */
    std::string createKey(const std::string& userId);
    /** The public key, ASCII-armoured. */
    Buffer exportKey(const std::string& fingerprint);
    /** Ends the home's agent, and waits until it has gone. */
    void stopAgent() noexcept;

  private:
    using Context = Handle<std::remove_pointer_t<gpgme_ctx_t>, gpgme_release>;
    using KeyHandle =
        Handle<std::remove_pointer_t<gpgme_key_t>, gpgme_key_unref>;

    KeyHandle findSigningKey(const std::string& fingerprint);
    void warnOfExpiry(const gpgme_key_t key, const std::string& signer) const;
    void check(gpgme_error_t error, const std::string& doing) const;
    std::string name() const;

    std::filesystem::path home;
    Context context;
};

} // namespace pack
