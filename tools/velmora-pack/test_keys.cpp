#include "test_keys.hpp"

#include "files.hpp"
#include "openpgp.hpp"
#include "openssl.hpp"
#include "signing.hpp"

#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <optional>
#include <string>

namespace fs = std::filesystem;

namespace pack
{

namespace
{

constexpr auto mark = "TEST, do not trust: ";
constexpr auto openPgpUserId =
    "TEST, do not trust (velmora-pack) <test@velmora.invalid>";
constexpr unsigned payloadKeyBits = 4096;
/** Wide enough for any timestamp that is worth trying. */
constexpr auto validFrom = "20200101000000Z";
constexpr auto validUntil = "20491231235959Z";
constexpr auto expiredOn = "20201231235959Z";

using Extension = Handle<X509_EXTENSION, X509_EXTENSION_free>;
using Store = Handle<X509_STORE, X509_STORE_free>;
using StoreContext = Handle<X509_STORE_CTX, X509_STORE_CTX_free>;

void freeStack(STACK_OF(X509) * stack) { sk_X509_free(stack); }

/** Stops the agent before its home goes or moves. */
class AgentGuard
{
  public:
    explicit AgentGuard(OpenPgp& home) : openPgp(home) {}
    AgentGuard(const AgentGuard&) = delete;
    AgentGuard& operator=(const AgentGuard&) = delete;
    ~AgentGuard() { openPgp.stopAgent(); }

  private:
    OpenPgp& openPgp;
};

Key makeEcKey()
{
    Key key(EVP_EC_gen("P-384"));
    require(key != nullptr, "an EC key cannot be made");
    return key;
}

struct Authority
{
    std::string name;
    Key key;
    Certificate certificate;
};

struct Validity
{
    const char* from;
    const char* until;
};

void addExtension(X509* certificate, X509V3_CTX* context, int type,
                  const char* value)
{
    const Extension extension(
        X509V3_EXT_conf_nid(nullptr, context, type, value));
    require(extension && X509_add_ext(certificate, extension.get(), -1) == 1,
            "a certificate extension cannot be made");
}

void setName(X509_NAME* name, const std::string& commonName)
{
    require(X509_NAME_add_entry_by_NID(
                name, NID_commonName, MBSTRING_UTF8,
                reinterpret_cast<const unsigned char*>(commonName.c_str()), -1,
                -1, 0) == 1,
            "a certificate's name cannot be set");
}

/** A certificate; without an issuer one that is signed with its own key. */
Certificate issue(const std::string& name, EVP_PKEY* key,
                  const Authority* issuer, bool authority, long serial,
                  const Validity& validity = {validFrom, validUntil})
{
    Certificate certificate(X509_new());
    X509* const made = certificate.get();
    require(made != nullptr && X509_set_version(made, X509_VERSION_3) == 1 &&
                ASN1_INTEGER_set(X509_get_serialNumber(made), serial) == 1 &&
                ASN1_TIME_set_string_X509(X509_getm_notBefore(made),
                                          validity.from) == 1 &&
                ASN1_TIME_set_string_X509(X509_getm_notAfter(made),
                                          validity.until) == 1 &&
                X509_set_pubkey(made, key) == 1,
            "a certificate cannot be made");
    setName(X509_get_subject_name(made), mark + name);
    X509* const parent = issuer == nullptr ? made : issuer->certificate.get();
    require(X509_set_issuer_name(made, X509_get_subject_name(parent)) == 1,
            "a certificate's issuer cannot be set");

    X509V3_CTX context;
    X509V3_set_ctx(&context, parent, made, nullptr, nullptr, 0);
    addExtension(made, &context, NID_basic_constraints,
                 authority ? "critical,CA:TRUE" : "critical,CA:FALSE");
    addExtension(made, &context, NID_key_usage,
                 authority ? "critical,keyCertSign,cRLSign"
                           : "critical,digitalSignature");
    addExtension(made, &context, NID_subject_key_identifier, "hash");
    addExtension(made, &context, NID_authority_key_identifier, "keyid");
    require(X509_sign(made, issuer == nullptr ? key : issuer->key.get(),
                      EVP_sha384()) > 0,
            "a certificate cannot be signed");
    return certificate;
}

Authority makeAuthority(const std::string& name, const Authority* issuer,
                        long serial)
{
    Authority authority{name, makeEcKey(), {}};
    authority.certificate =
        issue(name, authority.key.get(), issuer, true, serial);
    return authority;
}

Buffer pemOf(std::initializer_list<const X509*> certificates)
{
    const Bio bio(BIO_new(BIO_s_mem()));
    for (const X509* const certificate : certificates)
    {
        require(bio && PEM_write_bio_X509(bio.get(), certificate) == 1,
                "a certificate cannot be written");
    }
    return contentOf(bio.get());
}

void writePublic(const fs::path& file, Bytes content)
{
    writeFile(file, Source(content));
}

/** Readers of PEM pass over what stands before a block. */
constexpr const char* keyMark = "TEST, do not trust\n";

void writePrivateKey(const fs::path& file, const EVP_PKEY* key)
{
    const Bio bio(BIO_new(BIO_s_mem()));
    require(bio && BIO_puts(bio.get(), keyMark) > 0 &&
                PEM_write_bio_PKCS8PrivateKey(bio.get(), key, nullptr, nullptr,
                                              0, nullptr, nullptr) == 1,
            "a private key cannot be written");
    const Buffer content = contentOf(bio.get());
    writeFile(file, Source(content), {}, OutputFile::secret);
    if (EVP_PKEY_eq(readPrivateKey(file).get(), key) != 1)
    {
        throw Error(file.string(), "does not hold the key that was made");
    }
}

void writePublicKey(const fs::path& file, const EVP_PKEY* key)
{
    const Bio bio(BIO_new(BIO_s_mem()));
    require(bio && BIO_puts(bio.get(), keyMark) > 0 &&
                PEM_write_bio_PUBKEY(bio.get(), key) == 1,
            "a public key cannot be written");
    writePublic(file, contentOf(bio.get()));
}

void makeOpenPgpKey(const fs::path& directory)
{
    const fs::path home = directory / "gnupg";
    if (mkdir(home.c_str(), 0700) != 0)
    {
        throw systemError(home.string());
    }
    OpenPgp openPgp(home);
    const AgentGuard guard(openPgp);
    const std::string fingerprint = openPgp.createKey(openPgpUserId);
    const Bytes probe = bytesOf(fingerprint);
    openPgp.verify(probe, openPgp.sign(fingerprint, probe));
    writePublic(directory / "keyring.asc", openPgp.exportKey(fingerprint));
    writePublic(directory / "fingerprint", bytesOf(fingerprint + "\n"));
}

void makeImageSigner(const fs::path& directory)
{
    const Key key = makeEcKey();
    writePrivateKey(directory / "image-signer.pem", key.get());
    writePublicKey(directory / "image-signer.pub.pem", key.get());
}

/** The certificates on the disk must lead from the signer to the root. */
void checkChain(const fs::path& chainFile, const fs::path& rootFile)
{
    const std::vector<Certificate> chain =
        readCertificates(Source(chainFile).readAll());
    const std::vector<Certificate> root =
        readCertificates(Source(rootFile).readAll());
    const Store store(X509_STORE_new());
    const StoreContext context(X509_STORE_CTX_new());
    const Handle<STACK_OF(X509), freeStack> untrusted(sk_X509_new_null());
    require(chain.size() == 2 && root.size() == 1 && store && context &&
                untrusted &&
                sk_X509_push(untrusted.get(), chain.back().get()) > 0 &&
                X509_STORE_add_cert(store.get(), root.front().get()) == 1 &&
                X509_STORE_CTX_init(context.get(), store.get(),
                                    chain.front().get(),
                                    untrusted.get()) == 1 &&
                X509_verify_cert(context.get()) == 1,
            "the chain that was made does not verify");
}

void makePayloadSigner(const fs::path& directory)
{
    const Authority root = makeAuthority("root CA", nullptr, 1);
    const Authority intermediate = makeAuthority("intermediate CA", &root, 2);
    const Authority foreign = makeAuthority("foreign root CA", nullptr, 3);
    const Key key(EVP_RSA_gen(payloadKeyBits));
    require(key != nullptr, "an RSA key cannot be made");
    const Certificate signer =
        issue("payload signer", key.get(), &intermediate, false, 4);
    const Certificate expired =
        issue("expired payload signer", key.get(), &intermediate, false, 5,
              {validFrom, expiredOn});

    writePrivateKey(directory / "payload-signer.pem", key.get());
    const X509* const between = intermediate.certificate.get();
    writePublic(directory / "chain.pem", pemOf({signer.get(), between}));
    writePublic(directory / "expired-chain.pem",
                pemOf({expired.get(), between}));
    writePublic(directory / "root-ca.pem", pemOf({root.certificate.get()}));
    writePublic(directory / "foreign-root.pem",
                pemOf({foreign.certificate.get()}));
    checkChain(directory / "chain.pem", directory / "root-ca.pem");
}

} // namespace

void makeTestKeys(const fs::path& target)
{
    OutputDirectory directory(target);
    const fs::path& made = directory.temporaryPath();
    makeOpenPgpKey(made);
    throwIfInterrupted();
    makeImageSigner(made);
    makePayloadSigner(made);
    directory.commit();
    report(target, "test keys and certificates, not to be trusted");
}

} // namespace pack
