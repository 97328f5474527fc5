#define LOG_BLOCK 9000

#include "handles.hpp"
#include "log.hpp"
#include "mapped_file.hpp"
#include "signed_payload.hpp"
#include "velmora.hpp"

#include <openssl/err.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace
{

using namespace velmora;

/** Statuses of verify_slot_signature. */
enum SlotStatus
{
    SLOT_VERIFIED = 0,
    SLOT_BAD_ARGUMENT = 1,
    SLOT_OPEN = 2,
    SLOT_STAT = 3,
    SLOT_TOO_SMALL = 4,
    SLOT_MAP = 5,
    SLOT_CERTIFICATE = 7,
    SLOT_CERTIFICATE_KEY = 8,
    SLOT_KEY_SIZE = 10,
    SLOT_SETUP = 11,
    SLOT_SIGNATURE = 13,
    SLOT_UNMAP = 14,
    SLOT_CLOSE = 15,
    SLOT_NO_CONTEXT = 16,
    SLOT_PUBLICKEY_FILE = 17,
};

/** Digests by their names in metadata_algo, and the line that tells which. */
struct Algorithm
{
    const char* name;
    const char* line;
    const EVP_MD* (*digest)();
};
constexpr std::array<Algorithm, 3> ALGORITHMS{
    {{"PS256", "ALGO_256", EVP_sha256},
     {"PS384", "ALGO_384", EVP_sha384},
     {"PS512", "ALGO_512", EVP_sha512}}};

/** Text of an error code of the library, never null. */
const char* reason(unsigned long code)
{
    const char* text = ERR_reason_error_string(code);
    return text != nullptr ? text : "";
}

/** The steps of the operation, and what they make. */
class SlotVerification
{
  public:
    static constexpr const char* OPERATION = "verify_slot_signature";

    SlotVerification() = default;
    SlotVerification(const SlotVerification&) = delete;
    SlotVerification& operator=(const SlotVerification&) = delete;

    ~SlotVerification()
    {
        if (certificate != nullptr)
        {
            // The function's name in this line must read operator().
            printLine("INFO", "operator()", LOG_NUMBER,
                      "Clear ctx before exiting...");
        }
    }

    static SlotStatus mapPayload(MappedFile& payload, const char* path)
    {
        if (!payload.isOpen())
        {
            PRINT_FAILURE("the payload cannot be opened",
                          "File[%s]could not be opened,strerr[%s]", path,
                          std::strerror(errno));
            return SLOT_OPEN;
        }
        if (!payload.measure())
        {
            PRINT_FAILURE("the payload's size cannot be read",
                          "File[%s]could not be stat'ed,strerr[%s]", path,
                          std::strerror(errno));
            return SLOT_STAT;
        }
        if (payload.size() <= TRAILER_SIZE)
        {
            PRINT_FAILURE("the payload is not larger than its trailer",
                          "Rejecting FW Binary. fileSize:%zu too small",
                          static_cast<std::size_t>(payload.size()));
            return SLOT_TOO_SMALL;
        }
        if (!payload.map())
        {
            PRINT_FAILURE("the payload could not be mapped",
                          "File[%s]mmap failed,strerr[%s]", path,
                          std::strerror(errno));
            return SLOT_MAP;
        }
        PRINT_INFO("%s, fileSize: %llu", path,
                   static_cast<unsigned long long>(payload.size()));
        return SLOT_VERIFIED;
    }

    static SlotStatus refuseCertificate(MappedFile& payload)
    {
        PRINT_ECHO("signer_files", "there is no signer's certificate",
                   "convert char buffer to X509 cert format failed");
        payload.close();
        if (!payload.unmap())
        {
            PRINT_NOTE("the payload could not be unmapped",
                       "Line[%u]munmap failed", LINE_NUMBER);
        }
        return SLOT_CERTIFICATE;
    }

    /** @return @p status, or what went wrong here */
    static SlotStatus releasePayload(MappedFile& payload, const char* path,
                                     SlotStatus status)
    {
        if (!payload.unmap())
        {
            PRINT_FAILURE("the payload could not be unmapped",
                          "munmap failed,strerr[%s]", std::strerror(errno));
            status = SLOT_UNMAP;
        }
        if (!payload.close())
        {
            PRINT_FAILURE("the payload could not be closed",
                          "File %s close error,strerr[%s]", path,
                          std::strerror(errno));
            status = SLOT_CLOSE;
        }
        return status;
    }

    SlotStatus verify(const std::string& signature, const MappedFile& payload,
                      std::size_t signedSize)
    {
        SlotStatus status = takeKey();
        if (status == SLOT_VERIFIED)
        {
            status = prepare();
        }
        if (status == SLOT_VERIFIED)
        {
            status = check(signature, payload, signedSize);
        }
        return status;
    }

    // Released in the reverse order.
    PublicKey key;
    Certificate certificate;
    DigestContext context;

  private:
    /** Takes the certificate's key and leaves it in its file. */
    SlotStatus takeKey()
    {
        key.reset(X509_get_pubkey(certificate.get()));
        if (key == nullptr)
        {
            PRINT_FAILURE("the signer's certificate has no usable key",
                          "Error retrieving Cert public key");
            return SLOT_CERTIFICATE_KEY;
        }
        PRINT_INFO("X509_get_pubkey is done");
        if (!ValidateQOR::createPublicKeyFile(key.get()))
        {
            PRINT_ECHO("signer_files", "the public key file was not written",
                       "Error creating public key file");
            return SLOT_PUBLICKEY_FILE;
        }
        PRINT_INFO("Creating public key file is done");
        ValidateQOR::createHashFuncFile();
        PRINT_INFO("Creating hash function file is done");

        const int size = EVP_PKEY_get_size(key.get());
        PRINT_INFO("RSA Key length[%d]", size);
        if (size != static_cast<int>(SLOT_SIGNATURE_SIZE))
        {
            PRINT_FAILURE(
                "the signer's key is no RSA key of 4096 bits",
                "RSA Key length[%d]is not match with SLOT_SIGNATURE_SIZE",
                size);
            return SLOT_KEY_SIZE;
        }
        return SLOT_VERIFIED;
    }

    static const EVP_MD* chooseDigest()
    {
        for (const auto& [name, line, digest] : ALGORITHMS)
        {
            if (metadata_algo == name)
            {
                PRINT_INFO("%s", line);
                return digest();
            }
        }
        PRINT_INFO("Default-ALGO_256");
        return EVP_sha256();
    }

    /** Sets up RSA-PSS with a salt of the digest's length. */
    SlotStatus prepare()
    {
        const EVP_MD* digest = chooseDigest();
        context.reset(EVP_MD_CTX_new());
        if (context == nullptr)
        {
            PRINT_FAILURE("no digest context could be made",
                          "EVP_MD_CTX_create is failed");
            return SLOT_NO_CONTEXT;
        }
        EVP_PKEY_CTX* keyContext = nullptr;
        if (EVP_DigestVerifyInit(context.get(), &keyContext, digest, nullptr,
                                 key.get()) <= 0)
        {
            const unsigned long error = ERR_get_error();
            PRINT_FAILURE("the signer's key cannot be used to verify",
                          "EVP_DigestVerifyInit failed,err[%lu]errmsg[%s]",
                          error, reason(error));
            return SLOT_SETUP;
        }
        if (EVP_PKEY_CTX_set_rsa_padding(keyContext, RSA_PKCS1_PSS_PADDING) <=
            0)
        {
            PRINT_FAILURE("the signer's key cannot be used for RSA-PSS",
                          "Setting RSA padding mode failed");
            return SLOT_SETUP;
        }
        if (EVP_PKEY_CTX_set_rsa_pss_saltlen(keyContext,
                                             RSA_PSS_SALTLEN_DIGEST) <= 0)
        {
            PRINT_FAILURE("the salt's length could not be set",
                          "Setting RSA PSS salt length failed");
            return SLOT_SETUP;
        }
        return SLOT_VERIFIED;
    }

    SlotStatus check(const std::string& signature, const MappedFile& payload,
                     std::size_t signedSize)
    {
        if (EVP_DigestVerifyUpdate(context.get(), payload.data(), signedSize) <=
            0)
        {
            const unsigned long error = ERR_get_error();
            PRINT_FAILURE("the payload could not be digested",
                          "EVP_DigestVerifyUpdate failed,err[%lu]errmsg[%s]",
                          error, reason(error));
            return SLOT_SIGNATURE;
        }
        PRINT_INFO("EVP_DigestVerifyUpdate is done");
        // A short field is padded with zeros and does not verify.
        std::array<unsigned char, SLOT_SIGNATURE_SIZE> field{};
        std::copy_n(signature.begin(), std::min(signature.size(), field.size()),
                    field.begin());
        ERR_clear_error();
        const int result =
            EVP_DigestVerifyFinal(context.get(), field.data(), field.size());
        PRINT_INFO("EVP_DigestVerifyFinal,RC[%d]", result);
        if (result != 1)
        {
            const unsigned long error = ERR_get_error();
            PRINT_FAILURE("the payload's signature does not verify with the "
                          "signer's key",
                          "EVP_DigestVerifyFinal failed,err[%lu]errmsg[%s]",
                          error, reason(error));
            return SLOT_SIGNATURE;
        }
        return SLOT_VERIFIED;
    }
};

} // namespace

int ValidateQOR::verify_slot_signature(const std::string& chain,
                                       const std::string& signature,
                                       char* payloadPath)
{
    PRINT_INFO("Entry");
    if (payloadPath == nullptr || chain.empty() || signature.empty())
    {
        PRINT_FAILURE("the path, the chain area or the signature is missing",
                      "Invalid input parameter");
        return SLOT_BAD_ARGUMENT;
    }
    SlotStatus status = SLOT_VERIFIED;
    bool verified = false;
    {
        // Ends after the payload has been released, on every way out.
        SlotVerification verification;
        MappedFile payload(payloadPath);
        status = SlotVerification::mapPayload(payload, payloadPath);
        if (status != SLOT_VERIFIED)
        {
            return status;
        }
        const auto signedLength = static_cast<std::size_t>(
            payload.size() - TRAILER_SIZE +
            static_cast<std::int64_t>(CHAIN_SIZE + METADATA_SIZE));
        PRINT_INFO("length upto slot1 timestamp[%zu]", signedLength);

        verification.certificate.reset(getX509Cert(chain));
        if (verification.certificate == nullptr)
        {
            return SlotVerification::refuseCertificate(payload);
        }
        PRINT_INFO("getX509Cert is done");
        status = verification.verify(signature, payload, signedLength);
        verified = status == SLOT_VERIFIED;
        status = SlotVerification::releasePayload(payload, payloadPath, status);
    }
    if (verified)
    {
        PRINT_SUCCESS("the slot signature",
                      "Image slot signature verification successful");
    }
    return status;
}
