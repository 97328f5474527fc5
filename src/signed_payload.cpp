#define LOG_BLOCK 10000

#include "signed_payload.hpp"

#include "files.hpp"
#include "log.hpp"
#include "metadata_block.hpp"
#include "quorlin.h"
#include "velmora.hpp"

#include <openssl/x509_vfy.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <limits>
#include <string>
#include <utility>

namespace
{

using namespace velmora;

constexpr const char* ROOT_CA_FILE =
    "/var/run/obmcupdate/OpenBMCSecureBootRootCA.pem";

/** The root CA serves one call. The destructor removes the file if remove() has
 *  not. */
class RootCaFile
{
  public:
    RootCaFile() = default;
    RootCaFile(const RootCaFile&) = delete;
    RootCaFile& operator=(const RootCaFile&) = delete;

    ~RootCaFile() { remove(); }

    void remove()
    {
        if (!std::exchange(removed_, true))
        {
            unlink(ROOT_CA_FILE);
        }
    }

  private:
    bool removed_ = false;
};

/** What slot 1 of the trailer holds. */
struct Slot
{
    std::string chain = std::string(CHAIN_SIZE, '\0');
    std::string metadata = std::string(METADATA_SIZE, '\0');
    std::string signature = std::string(SLOT_SIGNATURE_SIZE, '\0');
};

/** The steps of the operation, in its order. */
class PayloadValidation
{
  public:
    static constexpr const char* OPERATION = "validateCertChainForPayload";

    static bool readSlot(std::ifstream& payload, Slot& slot)
    {
        const auto position = [&payload]
        { return static_cast<long long>(std::streamoff(payload.tellg())); };
        payload.seekg(0, std::ios::end);
        const std::int64_t length = position();
        payload.seekg(0, std::ios::beg);
        if (length <= TRAILER_SIZE)
        {
            PRINT_FAILURE("the payload is not larger than its trailer",
                          "Payload length is invalid %llu",
                          static_cast<unsigned long long>(length));
            return false;
        }
        PRINT_INFO("Payload length is %llu",
                   static_cast<unsigned long long>(length));

        payload.seekg(length - TRAILER_SIZE, std::ios::beg);
        PRINT_INFO("Certificate Chain offset %lld", position());
        if (!payload.read(slot.chain.data(), CHAIN_SIZE))
        {
            PRINT_FAILURE("the chain area cannot be read whole",
                          "Only %lld bytes read",
                          static_cast<long long>(payload.gcount()));
            LOG_ECHO("signed_payload", "the payload has no chain area");
            return false;
        }
        PRINT_INFO("Metadata offset %lld", position());
        if (!payload.read(slot.metadata.data(), METADATA_SIZE))
        {
            LOG_FAILURE("the metadata block cannot be read");
            return false;
        }
        PRINT_INFO("Signature offset %lld", position());
        if (!payload.read(slot.signature.data(), SLOT_SIGNATURE_SIZE))
        {
            LOG_FAILURE("the signature cannot be read");
            return false;
        }
        return true;
    }

    static bool readRootCa(std::ifstream& stream, RootCaFile& file,
                           std::string& rootCa)
    {
        stream = openRegularFile(ROOT_CA_FILE);
        if (!stream.is_open())
        {
            file.remove();
            LOG_FAILURE("the root CA file is missing, no regular file, or "
                        "cannot be opened");
            return false;
        }
        stream.seekg(0, std::ios::end);
        const std::streamoff length = stream.tellg();
        stream.seekg(0, std::ios::beg);
        // A 32-bit machine would read a longer file only in part.
        if (length < 1 || length > std::numeric_limits<std::streamsize>::max())
        {
            file.remove();
            LOG_FAILURE(
                "the root CA file is empty, or its length cannot be found");
            return false;
        }
        rootCa.assign(static_cast<std::size_t>(length), '\0');
        stream.read(rootCa.data(), static_cast<std::streamsize>(length));
        return true;
    }

    static bool verifyChain(const std::string& chain, const std::string& rootCa)
    {
        const int result =
            verify_chain_OBMC(chain.c_str(), rootCa.c_str(),
                              std::strlen(chain.c_str()), metadata_timestamp);
        if (result == 0)
        {
            PRINT_INFO("Certificate chain verfication successful");
            return true;
        }
        PRINT_INFO("Cert Chain validation check failed.");
        if (result > 0)
        {
            PRINT_FAILURE(
                "the certificate chain does not verify up to the root CA",
                "Certificate chain verification failed: error[%d] errstr[%s]",
                result, X509_verify_cert_error_string(result));
        }
        else
        {
            PRINT_FAILURE("the certificate chain could not be checked",
                          "Chain verification internal error[%d]", result);
        }
        return false;
    }
};

} // namespace

bool ValidateQOR::validateCertChainForPayload(const std::string& payloadPath)
{
    // Everything is released in the reverse order.
    std::ifstream payload(payloadPath, std::ios::binary);
    if (!payload)
    {
        PRINT_FAILURE("the payload cannot be opened",
                      "Unable to read the payload");
        return false;
    }
    Slot slot;
    if (!PayloadValidation::readSlot(payload, slot))
    {
        return false;
    }
    if (extract_meta_data(slot.metadata) != 0)
    {
        PRINT_PARDON("metadata_block",
                     "the metadata block does not parse: the chain is checked "
                     "at 1970-01-01, and the algorithm stays what it was",
                     "extract_meta_data failed. Continuing.");
    }

    RootCaFile rootCaFile;
    std::ifstream rootCaStream;
    std::string rootCa;
    if (!PayloadValidation::readRootCa(rootCaStream, rootCaFile, rootCa))
    {
        return false;
    }
    if (!PayloadValidation::verifyChain(slot.chain, rootCa))
    {
        rootCaFile.remove();
        LOG_ECHO("signed_payload", "the certificate chain is refused");
        return false;
    }
    // The path is only read, whatever its type says.
    const int status = verify_slot_signature(
        slot.chain, slot.signature, const_cast<char*>(payloadPath.c_str()));
    if (status != 0)
    {
        PRINT_ECHO("slot_signature", "the slot signature check refused",
                   "Signature verification failed. rc: %d", status);
        rootCaFile.remove();
        LOG_ECHO("signed_payload", "the slot signature is refused");
        return false;
    }
    PRINT_SUCCESS("the whole signed payload",
                  "Signature verification successful");
    rootCaFile.remove();
    return true;
}
