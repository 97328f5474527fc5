#pragma once

#include "bytes.hpp"
#include "files.hpp"

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace pack
{

using Bio = Handle<BIO, BIO_free_all>;
using Certificate = Handle<X509, X509_free>;
using DigestContext = Handle<EVP_MD_CTX, EVP_MD_CTX_free>;
using Key = Handle<EVP_PKEY, EVP_PKEY_free>;
using Time = Handle<ASN1_TIME, ASN1_TIME_free>;

/** An error that OpenSSL explains; its queue is empty afterwards. */
Error opensslError(std::string_view subject, std::string_view what);

/** Throws where an OpenSSL call that is given valid input fails. */
void require(bool success, std::string_view what);

class Digest
{
  public:
    explicit Digest(const EVP_MD* algorithm);

    void update(Bytes bytes);
    Buffer finish();

  private:
    DigestContext context_;
};

/** The digest of the first @p size bytes, as hexadecimal text. */
std::string digestText(const Source& source, std::uint64_t size,
                       const EVP_MD* algorithm);

struct SignatureScheme
{
    const EVP_MD* digest;
    /** RSA-PSS with a salt of the digest's length. */
    bool pss;
};

/** The signature over the source and then the tail. */
Buffer sign(const Source& source, Bytes tail, EVP_PKEY* key,
            const SignatureScheme& scheme);

/** Whether the signature over the first @p size bytes is the key's. */
bool verifies(const Source& source, std::uint64_t size, Bytes signature,
              EVP_PKEY* key, const SignatureScheme& scheme);

Key readPublicKey(const std::filesystem::path& file);
/** The key without its private part. */
Key publicPart(EVP_PKEY* key);

/** The certificates of a PEM text, up to one that cannot be read.
 *
 *  @param file the text's, for the error that such a one gives then */
std::vector<Certificate> readCertificates(Bytes pem,
                                          const std::string& file = {});
std::string pemText(const std::vector<Certificate>& certificates);
std::string nameText(const X509_NAME* name);
/** What a message calls it. */
std::string certificateText(const X509* certificate);
/** @param seconds since 1970 */
Time timeOf(std::int64_t seconds);
std::string timeText(const ASN1_TIME* time);

/** Checks as the machine will that the first certificate leads to the root.
 *
 *  @param root a PEM file, whose first certificate is the root
 *  @param seconds the time to check at, since 1970
 *  @return the root
 *  @throws Error when it does not */
Certificate verifyChain(const std::vector<Certificate>& chain,
                        const std::filesystem::path& root, std::time_t seconds);

} // namespace pack
