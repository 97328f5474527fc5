#include "test_keys.hpp"

#include "files.hpp"
#include "keys.hpp"
#include "openpgp.hpp"
#include "openssl.hpp"
#include "signing.hpp"

#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <utility>

namespace fs = std::filesystem;

namespace pack
{

namespace
{

constexpr auto MARK = "TEST, do not trust: ";
/** Readers of PEM pass over what stands before a block. */
constexpr auto KEY_MARK = "TEST, do not trust\n";
constexpr auto OPENPGP_USER_ID =
    "TEST, do not trust (velmora-pack) <test@velmora.invalid>";
constexpr auto OPENPGP_CREATED = "20200101T000000";
constexpr unsigned PAYLOAD_KEY_BITS = 4096;
/** Wide enough for any timestamp that is worth trying. */
constexpr auto VALID_FROM = "20200101000000Z";
constexpr auto VALID_UNTIL = "20491231235959Z";
constexpr auto EXPIRED_ON = "20201231235959Z";

using Extension = Handle<X509_EXTENSION, X509_EXTENSION_free>;

Key makeEcKey()
{
    Key key(EVP_EC_gen("P-384"));
    require(key != nullptr, "an EC key cannot be made");
    return key;
}

struct Authority
{
    Key key;
    Certificate certificate;
};

/** A certificate; without an issuer one that is signed with its own key. */
Certificate issue(const std::string& name, EVP_PKEY* key,
                  const Authority* issuer, bool authority,
                  const char* until = VALID_UNTIL)
{
    static long serial = 0;
    Certificate certificate(X509_new());
    X509* const made = certificate.get();
    X509* const parent = issuer == nullptr ? made : issuer->certificate.get();
    const std::string subject = MARK + name;
    require(
        made != nullptr && X509_set_version(made, X509_VERSION_3) == 1 &&
            ASN1_INTEGER_set(X509_get_serialNumber(made), ++serial) == 1 &&
            ASN1_TIME_set_string_X509(X509_getm_notBefore(made), VALID_FROM) ==
                1 &&
            ASN1_TIME_set_string_X509(X509_getm_notAfter(made), until) == 1 &&
            X509_set_pubkey(made, key) == 1 &&
            X509_NAME_add_entry_by_NID(
                X509_get_subject_name(made), NID_commonName, MBSTRING_UTF8,
                unsignedData(bytesOf(subject)), -1, -1, 0) == 1 &&
            X509_set_issuer_name(made, X509_get_subject_name(parent)) == 1,
        "a certificate cannot be made");
    X509V3_CTX context;
    X509V3_set_ctx(&context, parent, made, nullptr, nullptr, 0);
    const std::initializer_list<std::pair<int, const char*>> extensions = {
        {NID_basic_constraints,
         authority ? "critical,CA:TRUE" : "critical,CA:FALSE"},
        {NID_key_usage, authority ? "critical,keyCertSign,cRLSign"
                                  : "critical,digitalSignature"},
        {NID_subject_key_identifier, "hash"},
        {NID_authority_key_identifier, "keyid"}};
    for (const auto& [type, value] : extensions)
    {
        const Extension extension(
            X509V3_EXT_conf_nid(nullptr, &context, type, value));
        require(extension && X509_add_ext(made, extension.get(), -1) == 1,
                "a certificate extension cannot be made");
    }
    require(X509_sign(made, issuer == nullptr ? key : issuer->key.get(),
                      EVP_sha384()) > 0,
            "a certificate cannot be signed");
    return certificate;
}

Authority makeAuthority(const std::string& name, const Authority* issuer)
{
    Authority authority{makeEcKey(), {}};
    authority.certificate = issue(name, authority.key.get(), issuer, true);
    return authority;
}

/** Writes what @p print gives a BIO. */
template <typename Print>
void writePem(const fs::path& file, Print print,
              mode_t mode = OutputFile::SHARED)
{
    const Bio bio(BIO_new(BIO_s_mem()));
    require(bio && print(bio.get()), "PEM cannot be written");
    writeFile(file, Source(contentOf(bio.get())), {}, mode);
}

void writeCertificates(const fs::path& file,
                       std::initializer_list<const Certificate*> certificates)
{
    writePem(
        file,
        [&](BIO* bio)
        {
            return std::ranges::all_of(
                certificates, [&](const Certificate* certificate)
                { return PEM_write_bio_X509(bio, certificate->get()) == 1; });
        });
}

void writePrivateKey(const fs::path& file, const EVP_PKEY* key)
{
    writePem(
        file,
        [&](BIO* bio)
        {
            return BIO_puts(bio, KEY_MARK) > 0 &&
                   PEM_write_bio_PKCS8PrivateKey(bio, key, nullptr, nullptr, 0,
                                                 nullptr, nullptr) == 1;
        },
        OutputFile::SECRET);
    if (EVP_PKEY_eq(readPrivateKey(file).get(), key) != 1)
    {
        throw Error(file.string(), "does not hold the key that was made");
    }
}

void makeOpenPgpKey(const fs::path& directory)
{
    const fs::path home = directory / "gnupg";
    if (mkdir(home.c_str(), 0700) != 0)
    {
        throw systemError(home.string());
    }
    OpenPgp openPgp(home);
    const std::string fingerprint =
        openPgp.createKey(OPENPGP_USER_ID, OPENPGP_CREATED);
    const Bytes probe = bytesOf(fingerprint);
    openPgp.verify(probe, openPgp.sign(fingerprint, probe));
    writeFile(directory / "keyring.asc",
              Source(openPgp.exportKey(fingerprint)));
    writeFile(directory / "fingerprint", Source(bytesOf(fingerprint + "\n")));
}

void makeImageSigner(const fs::path& directory)
{
    const Key key = makeEcKey();
    writePrivateKey(directory / "image-signer.pem", key.get());
    writePem(directory / "image-signer.pub.pem",
             [&](BIO* bio)
             {
                 return BIO_puts(bio, KEY_MARK) > 0 &&
                        PEM_write_bio_PUBKEY(bio, key.get()) == 1;
             });
}

void makePayloadSigner(const fs::path& directory)
{
    const Authority root = makeAuthority("root CA", nullptr);
    const Authority intermediate = makeAuthority("intermediate CA", &root);
    const Authority foreign = makeAuthority("foreign root CA", nullptr);
    const Key key(EVP_RSA_gen(PAYLOAD_KEY_BITS));
    require(key != nullptr, "an RSA key cannot be made");
    const Certificate signer =
        issue("payload signer", key.get(), &intermediate, false);
    const Certificate expired = issue("expired payload signer", key.get(),
                                      &intermediate, false, EXPIRED_ON);

    writePrivateKey(directory / "payload-signer.pem", key.get());
    const Certificate* const between = &intermediate.certificate;
    writeCertificates(directory / "chain.pem", {&signer, between});
    writeCertificates(directory / "expired-chain.pem", {&expired, between});
    writeCertificates(directory / "root-ca.pem", {&root.certificate});
    writeCertificates(directory / "foreign-root.pem", {&foreign.certificate});
    verifyChain(readCertificates(Source(directory / "chain.pem").readAll()),
                directory / "root-ca.pem", std::time(nullptr));
}

} // namespace

void makeTestKeys(const fs::path& target)
{
    std::error_code missing;
    if (fs::exists(fs::symlink_status(target, missing)) &&
        !(fs::is_directory(target, missing) && fs::is_empty(target, missing)))
    {
        throw Error(target.string(), "exists and is not an empty directory");
    }
    const Output directory(target);
    const fs::path made = directory.path();
    fs::create_directory(made);
    makeOpenPgpKey(made);
    throwIfInterrupted();
    makeImageSigner(made);
    makePayloadSigner(made);
    directory.commit();
    report(target, "test keys and certificates, not to be trusted");
}

} // namespace pack
