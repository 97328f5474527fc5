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

/** Named in the lines that the steps of the operation write. */
constexpr const char* VERIFY_SLOT = "verify_slot_signature";

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

/** An open payload and its mapping; what is still held goes with it, the
 *  mapping first. */
class PayloadFile
{
  public:
    explicit PayloadFile(const char* path) :
        descriptor_(open(path, O_RDONLY | O_CLOEXEC))
    {
    }

    PayloadFile(const PayloadFile&) = delete;
    PayloadFile& operator=(const PayloadFile&) = delete;

    ~PayloadFile() { unmap(); }

    bool isOpen() const { return static_cast<bool>(descriptor_); }

    bool measure()
    {
        struct stat status{};
        if (fstat(descriptor_.get(), &status) != 0)
        {
            return false;
        }
        size_ = status.st_size;
        return true;
    }

    /** In 64 bits, which a mapping need not have. */
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
                             PROT_READ, MAP_SHARED, descriptor_.get(), 0);
        if (mapping == MAP_FAILED)
        {
            return false;
        }
        mapping_ = mapping;
        return true;
    }

    const void* data() const { return mapping_; }

    /** @return false when the system refuses; it is not tried again */
    bool unmap()
    {
        void* mapping = std::exchange(mapping_, nullptr);
        return mapping == nullptr ||
               munmap(mapping, static_cast<std::size_t>(size_)) == 0;
    }

    bool close() { return descriptor_.close(); }

  private:
    Descriptor descriptor_;
    std::int64_t size_ = 0;
    void* mapping_ = nullptr;
};

/** What a slot verification makes once it has the certificate. */
struct SlotObjects
{
    SlotObjects() = default;
    SlotObjects(const SlotObjects&) = delete;
    SlotObjects& operator=(const SlotObjects&) = delete;

    ~SlotObjects() { release(); }

    void release()
    {
        if (certificate == nullptr)
        {
            return;
        }
        // Readers of the log know this line under the name that a scope
        // guard's lambda gives it.
        stderrInfo("operator()")("Clear ctx before exiting...");
        context.reset();
        certificate.reset();
        key.reset();
    }

    PublicKey key;
    Certificate certificate;
    DigestContext context;
};

/** Text of an error code of the library, never null. */
const char* reason(unsigned long code)
{
    const char* text = ERR_reason_error_string(code);
    return text != nullptr ? text : "";
}

const EVP_MD* chooseDigest()
{
    if (metadata_algo == "PS256")
    {
        stderrInfo(VERIFY_SLOT)("ALGO_256");
        return EVP_sha256();
    }
    if (metadata_algo == "PS384")
    {
        stderrInfo(VERIFY_SLOT)("ALGO_384");
        return EVP_sha384();
    }
    if (metadata_algo == "PS512")
    {
        stderrInfo(VERIFY_SLOT)("ALGO_512");
        return EVP_sha512();
    }
    stderrInfo(VERIFY_SLOT)("Default-ALGO_256");
    return EVP_sha256();
}

/** Takes the certificate's key and leaves it in its file. */
SlotStatus prepareKey(SlotObjects& objects)
{
    objects.key.reset(X509_get_pubkey(objects.certificate.get()));
    if (objects.key == nullptr)
    {
        stderrFailure(VERIFY_SLOT)("Error retrieving Cert public key");
        return SLOT_CERTIFICATE_KEY;
    }
    stderrInfo(VERIFY_SLOT)("X509_get_pubkey is done");
    if (!ValidateQOR::createPublicKeyFile(objects.key.get()))
    {
        stderrFailure(VERIFY_SLOT)("Error creating public key file");
        return SLOT_PUBLICKEY_FILE;
    }
    stderrInfo(VERIFY_SLOT)("Creating public key file is done");
    ValidateQOR::createHashFuncFile();
    stderrInfo(VERIFY_SLOT)("Creating hash function file is done");

    const int size = EVP_PKEY_get_size(objects.key.get());
    stderrInfo(VERIFY_SLOT)("RSA Key length[%d]", size);
    if (size != static_cast<int>(SLOT_SIGNATURE_SIZE))
    {
        stderrFailure(VERIFY_SLOT)(
            "RSA Key length[%d]is not match with SLOT_SIGNATURE_SIZE", size);
        return SLOT_KEY_SIZE;
    }
    return SLOT_VERIFIED;
}

/** Sets up RSA-PSS with a salt of the digest's length. */
SlotStatus prepareVerification(SlotObjects& objects)
{
    const EVP_MD* digest = chooseDigest();
    objects.context.reset(EVP_MD_CTX_new());
    if (objects.context == nullptr)
    {
        stderrFailure(VERIFY_SLOT)("EVP_MD_CTX_create is failed");
        return SLOT_NO_CONTEXT;
    }
    EVP_PKEY_CTX* keyContext = nullptr;
    if (EVP_DigestVerifyInit(objects.context.get(), &keyContext, digest,
                             nullptr, objects.key.get()) <= 0)
    {
        const unsigned long error = ERR_get_error();
        stderrFailure(VERIFY_SLOT)(
            "EVP_DigestVerifyInit failed,err[%lu]errmsg[%s]", error,
            reason(error));
        return SLOT_SETUP;
    }
    if (EVP_PKEY_CTX_set_rsa_padding(keyContext, RSA_PKCS1_PSS_PADDING) <= 0)
    {
        stderrFailure(VERIFY_SLOT)("Setting RSA padding mode failed");
        return SLOT_SETUP;
    }
    if (EVP_PKEY_CTX_set_rsa_pss_saltlen(keyContext, RSA_PSS_SALTLEN_DIGEST) <=
        0)
    {
        stderrFailure(VERIFY_SLOT)("Setting RSA PSS salt length failed");
        return SLOT_SETUP;
    }
    return SLOT_VERIFIED;
}

SlotStatus checkSignature(const SlotObjects& objects,
                          const std::string& signature,
                          const PayloadFile& payload, std::size_t signedSize)
{
    if (EVP_DigestVerifyUpdate(objects.context.get(), payload.data(),
                               signedSize) <= 0)
    {
        const unsigned long error = ERR_get_error();
        stderrFailure(VERIFY_SLOT)(
            "EVP_DigestVerifyUpdate failed,err[%lu]errmsg[%s]", error,
            reason(error));
        return SLOT_SIGNATURE;
    }
    stderrInfo(VERIFY_SLOT)("EVP_DigestVerifyUpdate is done");
    // A field that is too short does not verify, and is not read beyond.
    std::array<unsigned char, SLOT_SIGNATURE_SIZE> field{};
    std::copy_n(signature.begin(), std::min(signature.size(), field.size()),
                field.begin());
    ERR_clear_error();
    const int result = EVP_DigestVerifyFinal(objects.context.get(),
                                             field.data(), field.size());
    stderrInfo(VERIFY_SLOT)("EVP_DigestVerifyFinal,RC[%d]", result);
    if (result != 1)
    {
        const unsigned long error = ERR_get_error();
        stderrFailure(VERIFY_SLOT)(
            "EVP_DigestVerifyFinal failed,err[%lu]errmsg[%s]", error,
            reason(error));
        return SLOT_SIGNATURE;
    }
    return SLOT_VERIFIED;
}

SlotStatus verifySlot(SlotObjects& objects, const std::string& signature,
                      const PayloadFile& payload, std::size_t signedSize)
{
    SlotStatus status = prepareKey(objects);
    if (status == SLOT_VERIFIED)
    {
        status = prepareVerification(objects);
    }
    if (status == SLOT_VERIFIED)
    {
        status = checkSignature(objects, signature, payload, signedSize);
    }
    return status;
}

} // namespace

X509* ValidateQOR::getX509Cert(const std::string& chain)
{
    stderrInfo()("Entry");
    if (chain.empty())
    {
        stderrFailure()("Invalid input argument");
        return nullptr;
    }
    Bio bio(BIO_new(BIO_s_mem()));
    if (bio == nullptr)
    {
        stderrFailure()("Create a memory BIO failed");
        return nullptr;
    }
    const std::size_t length = std::strlen(chain.c_str());
    if (length > std::numeric_limits<int>::max() ||
        BIO_write(bio.get(), chain.c_str(), static_cast<int>(length)) !=
            static_cast<int>(length))
    {
        stderrFailure()("Writing from buffer to BIO failed");
        return nullptr;
    }
    Certificate certificate(
        PEM_read_bio_X509(bio.get(), nullptr, noPassphrase, nullptr));
    if (certificate == nullptr)
    {
        stderrFailure()("Read the PEM formatted certificate from memory into "
                        "an X509 is failed");
        return nullptr;
    }
    // The whole area is written below; a part of one must not be read beyond.
    if (chain.size() < CHAIN_SIZE)
    {
        stderrFailure()("Invalid input argument");
        return nullptr;
    }
    FileStream file(std::fopen(CERTCHAIN_FILE, "w"));
    if (file == nullptr)
    {
        stderrFailure()("Error creating certchain file");
        return nullptr;
    }
    bool written =
        std::fwrite(chain.data(), 1, CHAIN_SIZE, file.get()) >= chain.size();
    // What the stream has buffered can still fail to reach the file.
    written = std::fflush(file.get()) == 0 && written;
    if (!written)
    {
        stderrFailure()("Error writing certchain to file");
        file.reset();
        std::remove(CERTCHAIN_FILE);
        return nullptr;
    }
    file.reset();
    stderrInfo()("Cert chain file created successfully");
    bio.reset();
    stderrSuccess()("Getting X509 Certificate successful");
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
        stderrFailure()("Error opening publickey file");
        return false;
    }
    const Bio bio(BIO_new_fp(file.get(), BIO_NOCLOSE));
    if (bio == nullptr)
    {
        stderrFailure()("Error creating a filestream for public key");
        return false;
    }
    // What the stream has buffered can still fail to reach the file.
    if (key == nullptr || PEM_write_bio_PUBKEY(bio.get(), key) != 1 ||
        std::fflush(file.get()) != 0)
    {
        stderrFailure()("Error writing publickey file in PEM format");
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
    stderrInfo()("Entry");
    if (payloadPath == nullptr || chain.empty() || signature.empty())
    {
        stderrFailure()("Invalid input parameter");
        return SLOT_BAD_ARGUMENT;
    }
    // Released after the payload on every way out.
    SlotObjects objects;
    PayloadFile payload(payloadPath);
    if (!payload.isOpen())
    {
        stderrFailure()("File[%s]could not be opened,strerr[%s]", payloadPath,
                        std::strerror(errno));
        return SLOT_OPEN;
    }
    if (!payload.measure())
    {
        stderrFailure()("File[%s]could not be stat'ed,strerr[%s]", payloadPath,
                        std::strerror(errno));
        return SLOT_STAT;
    }
    if (payload.size() <= TRAILER_SIZE)
    {
        stderrFailure()("Rejecting FW Binary. fileSize:%zu too small",
                        static_cast<std::size_t>(payload.size()));
        return SLOT_TOO_SMALL;
    }
    if (!payload.map())
    {
        stderrFailure()("File[%s]mmap failed,strerr[%s]", payloadPath,
                        std::strerror(errno));
        return SLOT_MAP;
    }
    stderrInfo()("%s, fileSize: %llu", payloadPath,
                 static_cast<unsigned long long>(payload.size()));
    const auto len_upto_s1_ts = static_cast<std::size_t>(
        payload.size() - TRAILER_SIZE +
        static_cast<std::int64_t>(CHAIN_SIZE + METADATA_SIZE));
    stderrInfo()("length upto slot1 timestamp[%zu]", len_upto_s1_ts);

    objects.certificate.reset(getX509Cert(chain));
    if (objects.certificate == nullptr)
    {
        stderrFailure()("convert char buffer to X509 cert format failed");
        payload.close();
        if (!payload.unmap())
        {
            const StderrLine failure = stderrFailure();
            failure("Line[%u]munmap failed",
                    static_cast<unsigned>(failure.line()));
        }
        return SLOT_CERTIFICATE;
    }
    stderrInfo()("getX509Cert is done");

    int status = verifySlot(objects, signature, payload, len_upto_s1_ts);
    const bool verified = status == SLOT_VERIFIED;
    if (!payload.unmap())
    {
        stderrFailure()("munmap failed,strerr[%s]", std::strerror(errno));
        status = SLOT_UNMAP;
    }
    if (!payload.close())
    {
        stderrFailure()("File %s close error,strerr[%s]", payloadPath,
                        std::strerror(errno));
        status = SLOT_CLOSE;
    }
    objects.release();
    if (verified)
    {
        stderrSuccess()("Image slot signature verification successful");
    }
    return status;
}
