#define LOG_BLOCK 9000

#include "handles.hpp"
#include "log.hpp"
#include "signed_payload.hpp"
#include "velmora.hpp"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <string>
#include <utility>

namespace
{

using namespace velmora;

constexpr const char* CERTCHAIN_FILE = "/var/run/velmora/Zarnholt/certchain";
constexpr const char* PUBLICKEY_FILE = "/var/run/velmora/Zarnholt/publickey";
constexpr const char* HASHFUNC_FILE = "/var/run/velmora/Zarnholt/hashfunc";

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

/** Refuses to ask for the passphrase of an encrypted PEM block. */
int noPassphrase(char* /*buffer*/, int /*size*/, int /*forWriting*/,
                 void* /*data*/)
{
    return -1;
}

/** An open payload and its mapping. The destructor unmaps, then closes. */
class PayloadFile
{
  public:
    explicit PayloadFile(const char* path) :
        file_(open(path, O_RDONLY | O_CLOEXEC))
    {
    }

    PayloadFile(const PayloadFile&) = delete;
    PayloadFile& operator=(const PayloadFile&) = delete;

    ~PayloadFile() { unmap(); }

    bool isOpen() const { return static_cast<bool>(file_); }

    bool measure()
    {
        struct stat status{};
        if (fstat(file_.get(), &status) != 0)
        {
            return false;
        }
        size_ = status.st_size;
        return true;
    }

    /** May be more than a 32-bit machine can map. */
    std::int64_t size() const { return size_; }

    bool map()
    {
        if (static_cast<std::uint64_t>(size_) >
            std::numeric_limits<std::size_t>::max())
        {
            errno = EFBIG;
            return false;
        }
        void* mapping = mmap(nullptr, static_cast<std::size_t>(size_),
                             PROT_READ, MAP_SHARED, file_.get(), 0);
        if (mapping == MAP_FAILED)
        {
            return false;
        }
        mapping_ = mapping;
        return true;
    }

    const void* data() const { return mapping_; }

    /** @return false when the system refuses */
    bool unmap()
    {
        void* mapping = std::exchange(mapping_, nullptr);
        return mapping == nullptr ||
               munmap(mapping, static_cast<std::size_t>(size_)) == 0;
    }

    bool close() { return file_.close(); }

  private:
    FileDescriptor file_;
    std::int64_t size_ = 0;
    void* mapping_ = nullptr;
};

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

    static SlotStatus mapPayload(PayloadFile& payload, const char* path)
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

    static SlotStatus refuseCertificate(PayloadFile& payload)
    {
        PRINT_ECHO("slot_signature", "there is no signer's certificate",
                   "convert char buffer to X509 cert format failed");
        payload.close();
        if (!payload.unmap())
        {
            PRINT_NOTE("the payload could not be unmapped",
                       "Line[%u]munmap failed", unsigned{LOG_NUMBER});
        }
        return SLOT_CERTIFICATE;
    }

    /** @return @p status, or what went wrong here */
    static SlotStatus releasePayload(PayloadFile& payload, const char* path,
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

    SlotStatus verify(const std::string& signature, const PayloadFile& payload,
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
            PRINT_ECHO("slot_signature", "the public key file was not written",
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
        if (metadata_algo == "PS256")
        {
            PRINT_INFO("ALGO_256");
            return EVP_sha256();
        }
        if (metadata_algo == "PS384")
        {
            PRINT_INFO("ALGO_384");
            return EVP_sha384();
        }
        if (metadata_algo == "PS512")
        {
            PRINT_INFO("ALGO_512");
            return EVP_sha512();
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

    SlotStatus check(const std::string& signature, const PayloadFile& payload,
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

/** A step of the operation. */
class ChainFile
{
  public:
    static constexpr const char* OPERATION = "getX509Cert";

    /** @param chain at least CHAIN_SIZE bytes */
    static bool write(const std::string& chain)
    {
        FileStream file(std::fopen(CERTCHAIN_FILE, "w"));
        if (file == nullptr)
        {
            PRINT_FAILURE("the certchain file cannot be opened for writing",
                          "Error creating certchain file");
            return false;
        }
        bool written = std::fwrite(chain.data(), 1, CHAIN_SIZE, file.get()) >=
                       chain.size();
        // What the stream has buffered can still fail to reach the file.
        written = std::fflush(file.get()) == 0 && written;
        file.reset();
        if (!written)
        {
            PRINT_FAILURE("the certchain file could not be written",
                          "Error writing certchain to file");
            std::remove(CERTCHAIN_FILE);
            return false;
        }
        PRINT_INFO("Cert chain file created successfully");
        return true;
    }
};

} // namespace

X509* ValidateQOR::getX509Cert(const std::string& chain)
{
    PRINT_INFO("Entry");
    if (chain.empty())
    {
        PRINT_FAILURE("no certificate chain was given",
                      "Invalid input argument");
        return nullptr;
    }
    Bio bio(BIO_new(BIO_s_mem()));
    if (bio == nullptr)
    {
        PRINT_FAILURE("no memory buffer could be made",
                      "Create a memory BIO failed");
        return nullptr;
    }
    const std::size_t length = std::strlen(chain.c_str());
    if (length > std::numeric_limits<int>::max() ||
        BIO_write(bio.get(), chain.c_str(), static_cast<int>(length)) !=
            static_cast<int>(length))
    {
        PRINT_FAILURE("the certificate chain could not be copied",
                      "Writing from buffer to BIO failed");
        return nullptr;
    }
    Certificate certificate(
        PEM_read_bio_X509(bio.get(), nullptr, noPassphrase, nullptr));
    if (certificate == nullptr)
    {
        PRINT_FAILURE("the chain area begins with no readable certificate",
                      "Read the PEM formatted certificate from memory into "
                      "an X509 is failed");
        return nullptr;
    }
    // CHAIN_SIZE bytes are written below. A shorter chain would be read past
    // its end.
    if (chain.size() < CHAIN_SIZE)
    {
        PRINT_FAILURE("the chain area is shorter than 24,576 bytes",
                      "Invalid input argument");
        return nullptr;
    }
    if (!ChainFile::write(chain))
    {
        return nullptr;
    }
    bio.reset();
    PRINT_ANSWER("the signer's certificate",
                 "Getting X509 Certificate successful");
    return certificate.release();
}

bool ValidateQOR::createPublicKeyFile(EVP_PKEY* key)
{
    OPENSSL_init_crypto(
        OPENSSL_INIT_ADD_ALL_CIPHERS | OPENSSL_INIT_ADD_ALL_DIGESTS, nullptr);
    OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
    const FileStream file(std::fopen(PUBLICKEY_FILE, "w"));
    if (file == nullptr)
    {
        PRINT_FAILURE("the publickey file cannot be opened for writing",
                      "Error opening publickey file");
        return false;
    }
    const Bio bio(BIO_new_fp(file.get(), BIO_NOCLOSE));
    if (bio == nullptr)
    {
        PRINT_FAILURE("no stream could be made for the publickey file",
                      "Error creating a filestream for public key");
        return false;
    }
    // What the stream has buffered can still fail to reach the file.
    if (key == nullptr || PEM_write_bio_PUBKEY(bio.get(), key) != 1 ||
        std::fflush(file.get()) != 0)
    {
        PRINT_FAILURE("the publickey file could not be written",
                      "Error writing publickey file in PEM format");
        return false;
    }
    return true;
}

void ValidateQOR::createHashFuncFile()
{
    std::ofstream file(HASHFUNC_FILE, std::ios::out | std::ios::trunc);
    file << "HashType=RSA-SHA256\n";
    file.flush();
    file.close();
}

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
        SlotVerification verification;
        // Runs after the payload has been released, on every way out.
        const ScopeGuard clear(
            [&verification]
            {
                if (verification.certificate != nullptr)
                {
                    // This line has always carried the lambda's own name.
                    // NOLINTNEXTLINE(bugprone-lambda-function-name)
                    PRINT_INFO("Clear ctx before exiting...");
                    verification.context.reset();
                    verification.certificate.reset();
                    verification.key.reset();
                }
            });
        PayloadFile payload(payloadPath);
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
