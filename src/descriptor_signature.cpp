#define LOG_BLOCK 4000

#include "files.hpp"
#include "handles.hpp"
#include "log.hpp"
#include "velmora.hpp"

#include <clocale>
#include <string>

namespace
{

using namespace velmora;

constexpr const char* KEYRING_HOME = "/etc/gpg/secupkey/.gnupg/";

/** What one verification makes, released in the reverse order: the context,
 *  the signature, the text. */
struct Verification
{
    OpenPgpData text;
    OpenPgpData signature;
    OpenPgpContext context;
};

gpgme_error_t makeContext(OpenPgpContext& context)
{
    gpgme_ctx_t made = nullptr;
    const gpgme_error_t error = gpgme_new(&made);
    context.reset(made);
    return error;
}

gpgme_error_t readData(const std::string& path, OpenPgpData& data)
{
    gpgme_data_t made = nullptr;
    const gpgme_error_t error =
        gpgme_data_new_from_file(&made, path.c_str(), 1);
    data.reset(made);
    return error;
}

gpgme_error_t verify(const std::string& descriptorPath,
                     const std::string& signaturePath,
                     Verification& verification)
{
    gpgme_error_t error = gpgme_engine_check_version(GPGME_PROTOCOL_OpenPGP);
    if (error == 0)
    {
        error = makeContext(verification.context);
    }
    if (error == 0)
    {
        error = gpgme_ctx_set_engine_info(verification.context.get(),
                                          GPGME_PROTOCOL_OpenPGP, nullptr,
                                          KEYRING_HOME);
    }
    if (error == 0)
    {
        error = readData(signaturePath, verification.signature);
    }
    if (error == 0)
    {
        error = readData(descriptorPath, verification.text);
    }
    if (error == 0)
    {
        error = gpgme_op_verify(verification.context.get(),
                                verification.signature.get(),
                                verification.text.get(), nullptr);
    }
    return error;
}

void logSignature(int signCount, const _gpgme_signature& gpgmeSig)
{
    LOG_INFO("signCount: ", signCount);
    LOG_INFO("gpgme_strerror(gpgmeSig->status): ",
             gpgme_strerror(gpgmeSig.status));
    LOG_INFO("gpgmeSig->summary: ", static_cast<int>(gpgmeSig.summary));
    LOG_INFO("gpgmeSig->timestamp: ", gpgmeSig.timestamp);
    LOG_INFO("gpgmeSig->exp_timestamp: ", gpgmeSig.exp_timestamp);
    LOG_INFO("gpgmeSig->wrong_key_usage: ", +gpgmeSig.wrong_key_usage);
    LOG_INFO("gpgmeSig->pka_trust: ", +gpgmeSig.pka_trust);
    LOG_INFO("gpgmeSig->chain_model: ", +gpgmeSig.chain_model);
    LOG_INFO("gpgmeSig->validity: ", static_cast<int>(gpgmeSig.validity));
    LOG_INFO("gpgmeSig->validity_reason: ", gpgmeSig.validity_reason);
    LOG_INFO("gpgme_hash_algo_name(gpgmeSig->hash_algo): ",
             gpgme_hash_algo_name(gpgmeSig.hash_algo));
    LOG_INFO("gpgme_pubkey_algo_name (gpgmeSig->pubkey_algo): ",
             gpgme_pubkey_algo_name(gpgmeSig.pubkey_algo));
}

} // namespace

bool ValidateQOR::validatePkgXMLSignature(const std::string& descriptorPath,
                                          const std::string& signaturePath)
{
    if (!isRegularFile(descriptorPath))
    {
        LOG_FAILURE("the descriptor is missing or no regular file");
        return false;
    }
    if (!isRegularFile(signaturePath))
    {
        LOG_FAILURE("the signature file is missing or no regular file");
        return false;
    }
    gpgme_check_version(nullptr);
    std::setlocale(LC_ALL, "");
    gpgme_set_locale(nullptr, LC_CTYPE, std::setlocale(LC_CTYPE, nullptr));

    Verification verification;
    const gpgme_error_t error =
        verify(descriptorPath, signaturePath, verification);
    if (error != 0)
    {
        LOG_INFO("gpgmeStrErr: ", gpgme_strerror(error));
        LOG_FAILURE("the signature could not be checked");
        return false;
    }
    const gpgme_verify_result_t verified =
        gpgme_op_verify_result(verification.context.get());
    if (verified == nullptr)
    {
        LOG_INFO("err: ", "gpgme_op_verify_result failed");
        LOG_FAILURE("GnuPG gave no result");
        return false;
    }
    if (verified->signatures == nullptr)
    {
        LOG_FAILURE("the signature file holds no signature, or GnuPG gave up");
        return false;
    }
    int signCount = 0;
    for (const _gpgme_signature* gpgmeSig = verified->signatures;
         gpgmeSig != nullptr; gpgmeSig = gpgmeSig->next)
    {
        logSignature(++signCount, *gpgmeSig);
        if ((gpgmeSig->summary & GPGME_SIGSUM_VALID) != 0)
        {
            LOG_SUCCESS("the descriptor's signature");
            return true;
        }
    }
    LOG_FAILURE("the descriptor's signature is not valid");
    return false;
}
