#include "signer.hpp"

#include "common/handles.hpp"
#include "log_reader.hpp"

#include <gpgme.h>
#include <openssl/pem.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>
#include <utility>

namespace velmora::front
{

namespace
{

constexpr const char* KEYRING_HOME = "/etc/gpg/secupkey/.gnupg/";
/** Where the library leaves the chain that it has verified. */
constexpr const char* CHAIN_FILE = "/var/run/velmora/Zarnholt/certchain";

constexpr std::array PROBLEMS{
    std::pair{GPG_ERR_NO_ERROR,
              "the keyring does not hold its key as fully valid"},
    std::pair{GPG_ERR_NO_PUBKEY, "no public key"},
    std::pair{GPG_ERR_BAD_SIGNATURE, "the descriptor is not what was signed"},
    std::pair{GPG_ERR_CERT_REVOKED, "the key is revoked"},
    std::pair{GPG_ERR_KEY_EXPIRED, "the key has expired"},
    std::pair{GPG_ERR_SIG_EXPIRED, "the signature has expired"},
};

using Context = tools::Handle<gpgme_context, gpgme_release>;
using Data = tools::Handle<gpgme_data, gpgme_data_release>;
using Key = tools::Handle<_gpgme_key, gpgme_key_unref>;
using Stream = tools::Handle<BIO, BIO_free>;
using Certificate = tools::Handle<X509, X509_free>;

Data readData(const std::string& path)
{
    gpgme_data_t data = nullptr;
    gpgme_data_new_from_file(&data, path.c_str(), 1);
    return Data(data);
}

/** When the key that signed expires, or its owner's first key; 0 for never.
 *  GPGME has had several types for times. */
std::int64_t expiryOf(const _gpgme_key& key, std::string_view fingerprint)
{
    std::int64_t expiry = 0;
    for (const _gpgme_subkey* sub = key.subkeys; sub != nullptr;
         sub = sub->next)
    {
        if ((sub == key.subkeys || sub->fpr == fingerprint) &&
            sub->expires != 0)
        {
            expiry = static_cast<std::int64_t>(sub->expires);
        }
    }
    return expiry;
}

/** Why a signature is not valid. */
std::string problemOf(const _gpgme_signature& signature, const _gpgme_key* key)
{
    const auto code = gpgme_err_code(signature.status);
    const auto* known = std::ranges::find(
        PROBLEMS, code, &std::pair<gpg_err_code_t, const char*>::first);
    const std::string text = known != PROBLEMS.end()
                                 ? known->second
                                 : gpgme_strerror(signature.status);
    const std::int64_t expiry =
        code == GPG_ERR_SIG_EXPIRED
            ? static_cast<std::int64_t>(signature.exp_timestamp)
        : code == GPG_ERR_KEY_EXPIRED && key != nullptr
            ? expiryOf(*key, signature.fpr)
            : 0;
    return expiry > 0
               ? text + " (" + date(std::to_string(expiry)).substr(0, 10) + ')'
               : text;
}

} // namespace

Signer findSigner(const std::string& descriptor, const std::string& signature)
{
    gpgme_check_version(nullptr);
    gpgme_ctx_t made = nullptr;
    gpgme_new(&made);
    const Context context(made);
    const Data sign = readData(signature);
    const Data text = readData(descriptor);
    gpgme_ctx_set_engine_info(made, GPGME_PROTOCOL_OpenPGP, nullptr,
                              KEYRING_HOME);
    const bool isRead =
        gpgme_op_verify(made, sign.get(), text.get(), nullptr) == 0;
    const _gpgme_signature* found =
        isRead ? gpgme_op_verify_result(made)->signatures : nullptr;
    while (found != nullptr && found->next != nullptr &&
           (found->summary & GPGME_SIGSUM_VALID) == 0)
    {
        found = found->next;
    }
    if (found == nullptr || found->fpr == nullptr)
    {
        return {};
    }
    gpgme_key_t key = nullptr;
    gpgme_get_key(made, found->fpr, &key, 0);
    const Key owner(key);
    const bool isNamed = key != nullptr && key->uids != nullptr;
    return {found->fpr, isNamed ? key->uids->uid : "", problemOf(*found, key)};
}

std::string findChainSubject()
{
    const Stream file(BIO_new_file(CHAIN_FILE, "r"));
    const Stream text(BIO_new(BIO_s_mem()));
    // Given, so that nobody is asked for one.
    std::string passphrase;
    const Certificate certificate(
        PEM_read_bio_X509(file.get(), nullptr, nullptr, passphrase.data()));
    if (certificate != nullptr)
    {
        X509_NAME_print_ex(text.get(), X509_get_subject_name(certificate.get()),
                           0, XN_FLAG_RFC2253);
    }
    char* data = nullptr;
    const long size = BIO_get_mem_data(text.get(), &data);
    return {data, static_cast<std::size_t>(size)};
}

} // namespace velmora::front
