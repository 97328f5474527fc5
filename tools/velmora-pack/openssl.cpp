#include "openssl.hpp"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <utility>

namespace fs = std::filesystem;

namespace pack
{
namespace
{

/** The security level of the machine's verifier: no weak keys, no SHA-1. */
constexpr int SECURITY_LEVEL = 2;

using Initialiser = int (*)(EVP_MD_CTX*, EVP_PKEY_CTX**, const EVP_MD*, ENGINE*,
                            EVP_PKEY*);

/** @param initialise sets up signing, or verifying */
DigestContext contextFor(Initialiser initialise, EVP_PKEY* key,
                         const SignatureScheme& scheme)
{
    DigestContext context(EVP_MD_CTX_new());
    EVP_PKEY_CTX* keyContext = nullptr;
    bool ready = context && initialise(context.get(), &keyContext,
                                       scheme.digest, nullptr, key) > 0;
    if (scheme.pss)
    {
        ready = ready &&
                EVP_PKEY_CTX_set_rsa_padding(keyContext,
                                             RSA_PKCS1_PSS_PADDING) > 0 &&
                EVP_PKEY_CTX_set_rsa_pss_saltlen(keyContext,
                                                 RSA_PSS_SALTLEN_DIGEST) > 0;
    }
    require(ready, "the signature cannot be set up");
    return context;
}

void freeStack(STACK_OF(X509) * stack) { sk_X509_free(stack); }

Bio memoryBio(Bytes bytes)
{
    // Nothing at all has no address.
    Bio bio(BIO_new_mem_buf(bytes.empty() ? "" : textOf(bytes).data(),
                            static_cast<int>(bytes.size())));
    require(bio != nullptr, "no memory");
    return bio;
}

/** What @p print gives a BIO. */
template <typename Print>
std::string printed(Print print)
{
    const Bio bio(BIO_new(BIO_s_mem()));
    require(bio != nullptr, "no memory");
    print(bio.get());
    ERR_clear_error();
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return {data, static_cast<std::size_t>(std::max(size, 0L))};
}

} // namespace

Error opensslError(std::string_view subject, std::string_view what)
{
    const char* const reason = ERR_reason_error_string(ERR_peek_error());
    std::string text(what);
    if (reason != nullptr)
    {
        text += std::string(": ") + reason;
    }
    ERR_clear_error();
    return {subject, text};
}

void require(bool success, std::string_view what)
{
    if (!success)
    {
        throw opensslError("OpenSSL", what);
    }
}

Digest::Digest(const EVP_MD* algorithm) : context_(EVP_MD_CTX_new())
{
    require(context_ &&
                EVP_DigestInit_ex(context_.get(), algorithm, nullptr) == 1,
            "the digest cannot be set up");
}

void Digest::update(Bytes bytes)
{
    require(EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) == 1,
            "the digest failed");
}

Buffer Digest::finish()
{
    Buffer digest(EVP_MAX_MD_SIZE);
    unsigned size = 0;
    require(EVP_DigestFinal_ex(context_.get(), unsignedData(std::span(digest)),
                               &size) == 1,
            "the digest failed");
    digest.resize(size);
    return digest;
}

std::string digestText(const Source& source, std::uint64_t size,
                       const EVP_MD* algorithm)
{
    Digest digest(algorithm);
    source.stream(size, [&](Bytes piece) { digest.update(piece); });
    return hex(digest.finish());
}

Buffer sign(const Source& source, Bytes tail, EVP_PKEY* key,
            const SignatureScheme& scheme)
{
    const DigestContext context = contextFor(EVP_DigestSignInit, key, scheme);
    const auto add = [&](Bytes piece)
    {
        require(
            EVP_DigestSignUpdate(context.get(), piece.data(), piece.size()) > 0,
            "signing failed");
    };
    source.stream(source.size(), add);
    add(tail);
    auto size = static_cast<std::size_t>(EVP_PKEY_get_size(key));
    Buffer signature(size);
    require(EVP_DigestSignFinal(context.get(),
                                unsignedData(std::span(signature)), &size) > 0,
            "signing failed");
    signature.resize(size);
    return signature;
}

bool verifies(const Source& source, std::uint64_t size, Bytes signature,
              EVP_PKEY* key, const SignatureScheme& scheme)
{
    const DigestContext context = contextFor(EVP_DigestVerifyInit, key, scheme);
    source.stream(size,
                  [&](Bytes piece)
                  {
                      require(EVP_DigestVerifyUpdate(context.get(),
                                                     piece.data(),
                                                     piece.size()) > 0,
                              "verification failed");
                  });
    const int result = EVP_DigestVerifyFinal(
        context.get(), unsignedData(signature), signature.size());
    ERR_clear_error();
    return result == 1;
}

Key readPublicKey(const fs::path& file)
{
    const Source source(file);
    const Buffer content = source.readAll();
    // Given, so that nobody is asked for one.
    std::string passphrase;
    Key key(PEM_read_bio_PUBKEY(memoryBio(content).get(), nullptr, nullptr,
                                passphrase.data()));
    if (!key)
    {
        throw opensslError(source.name(), "no public key can be read from it");
    }
    return key;
}

Key publicPart(EVP_PKEY* key)
{
    const std::string der =
        printed([&](BIO* bio) { i2d_PUBKEY_bio(bio, key); });
    Key result(d2i_PUBKEY_bio(memoryBio(bytesOf(der)).get(), nullptr));
    require(result != nullptr, "the public key cannot be read");
    return result;
}

std::vector<Certificate> readCertificates(Bytes pem, const std::string& file)
{
    const Bio bio = memoryBio(pem);
    std::vector<Certificate> certificates;
    // Given, so that nobody is asked for one.
    std::string passphrase;
    while (X509* const certificate = PEM_read_bio_X509(
               bio.get(), nullptr, nullptr, passphrase.data()))
    {
        certificates.emplace_back(certificate);
    }
    // At the end there is no further one.
    if (!file.empty() &&
        ERR_GET_REASON(ERR_peek_last_error()) != PEM_R_NO_START_LINE)
    {
        throw opensslError(file, "holds a certificate that cannot be read");
    }
    ERR_clear_error();
    return certificates;
}

std::string pemText(const std::vector<Certificate>& certificates)
{
    return printed(
        [&](BIO* bio)
        {
            for (const Certificate& certificate : certificates)
            {
                require(PEM_write_bio_X509(bio, certificate.get()) == 1,
                        "a certificate cannot be written");
            }
        });
}

std::string nameText(const X509_NAME* name)
{
    return printed([&](BIO* bio)
                   { X509_NAME_print_ex(bio, name, 0, XN_FLAG_RFC2253); });
}

std::string certificateText(const X509* certificate)
{
    return "certificate " + nameText(X509_get_subject_name(certificate));
}

Time timeOf(std::int64_t seconds)
{
    // The start of 1970 and days as an int: a time_t may have 32 bits.
    constexpr std::int64_t DAY = 86400;
    Time time(ASN1_TIME_adj(nullptr, 0, static_cast<int>(seconds / DAY),
                            static_cast<long>(seconds % DAY)));
    require(time != nullptr, "the time is out of range");
    return time;
}

std::string timeText(const ASN1_TIME* time)
{
    // A date that makes no sense is printed as such.
    return printed([&](BIO* bio)
                   { ASN1_TIME_print_ex(bio, time, ASN1_DTFLGS_ISO8601); });
}

Certificate verifyChain(const std::vector<Certificate>& chain,
                        const fs::path& root, std::time_t seconds)
{
    const Source source(root);
    std::vector<Certificate> roots = readCertificates(source.readAll());
    if (roots.empty())
    {
        throw Error(source.name(), "holds no certificate");
    }
    const Handle<X509_STORE, X509_STORE_free> store(X509_STORE_new());
    const Handle<X509_STORE_CTX, X509_STORE_CTX_free> context(
        X509_STORE_CTX_new());
    const Handle<STACK_OF(X509), freeStack> untrusted(sk_X509_new_null());
    bool ready = store && context && untrusted &&
                 X509_STORE_add_cert(store.get(), roots.front().get()) == 1;
    for (const Certificate& certificate : chain)
    {
        ready = ready && sk_X509_push(untrusted.get(), certificate.get()) > 0;
    }
    require(ready &&
                X509_STORE_CTX_init(context.get(), store.get(),
                                    chain.front().get(), untrusted.get()) == 1,
            "the chain cannot be checked");
    X509_STORE_CTX_set_time(context.get(), 0, seconds);
    X509_VERIFY_PARAM_set_auth_level(X509_STORE_CTX_get0_param(context.get()),
                                     SECURITY_LEVEL);
    if (X509_verify_cert(context.get()) != 1)
    {
        ERR_clear_error();
        const X509* const at = X509_STORE_CTX_get_current_cert(context.get());
        throw Error(
            source.name(),
            std::string("does not vouch for the chain at the timestamp ") +
                std::to_string(seconds) + ": " +
                X509_verify_cert_error_string(
                    X509_STORE_CTX_get_error(context.get())) +
                (at == nullptr ? "" : ", " + certificateText(at)));
    }
    return std::move(roots.front());
}

} // namespace pack
