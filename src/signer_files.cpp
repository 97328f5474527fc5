#define LOG_BLOCK 12000

#include "handles.hpp"
#include "log.hpp"
#include "signed_payload.hpp"
#include "velmora.hpp"

#include <openssl/pem.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <string>

namespace
{

using namespace velmora;

constexpr const char* CERTCHAIN_FILE = "/var/run/velmora/Zarnholt/certchain";
constexpr const char* PUBLICKEY_FILE = "/var/run/velmora/Zarnholt/publickey";
constexpr const char* HASHFUNC_FILE = "/var/run/velmora/Zarnholt/hashfunc";

/** Refuses to ask for the passphrase of an encrypted PEM block. */
int noPassphrase(char* /*buffer*/, int /*size*/, int /*forWriting*/,
                 void* /*data*/)
{
    return -1;
}

class ChainFile
{
  public:
    static constexpr const char* OPERATION = "getX509Cert";

    /** Writes the whole area; a shorter chain is padded with NUL bytes. */
    static bool write(const std::string& chain)
    {
        FileStream file(std::fopen(CERTCHAIN_FILE, "w"));
        if (file == nullptr)
        {
            PRINT_FAILURE("the certchain file cannot be opened for writing",
                          "Error creating certchain file");
            return false;
        }
        std::array<char, CHAIN_SIZE> area{};
        chain.copy(area.data(), area.size());
        // What the stream has buffered can still fail to reach the file.
        if (chain.size() > area.size() ||
            std::fwrite(area.data(), 1, area.size(), file.get()) !=
                area.size() ||
            std::fflush(file.get()) != 0)
        {
            PRINT_FAILURE("the chain area is longer than 24,576 bytes, or the "
                          "certchain file could not be written",
                          "Error writing certchain to file");
            file.reset();
            std::remove(CERTCHAIN_FILE);
            return false;
        }
        file.reset();
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
