#include "signed_payload.hpp"

#include "log.hpp"
#include "quorlin.h"
#include "velmora.hpp"

#include <openssl/x509_vfy.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <system_error>
#include <utility>

namespace
{

using namespace velmora;
namespace fs = std::filesystem;

constexpr const char* ROOT_CA_FILE =
    "/var/run/obmcupdate/OpenBMCSecureBootRootCA.pem";

/** The root CA is good for one call: it is removed when this goes, if not
 *  before. */
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

} // namespace

bool ValidateQOR::validateCertChainForPayload(const std::string& payloadPath)
{
    std::ifstream payload(payloadPath, std::ios::binary);
    if (!payload)
    {
        stderrFailure()("Unable to read the payload");
        return false;
    }
    payload.seekg(0, std::ios::end);
    const std::int64_t length = std::streamoff(payload.tellg());
    payload.seekg(0, std::ios::beg);
    if (length <= TRAILER_SIZE)
    {
        stderrFailure()("Payload length is invalid %llu",
                        static_cast<unsigned long long>(length));
        return false;
    }
    stderrInfo()("Payload length is %llu",
                 static_cast<unsigned long long>(length));

    const auto position = [&payload]
    { return static_cast<long long>(std::streamoff(payload.tellg())); };
    payload.seekg(length - TRAILER_SIZE, std::ios::beg);
    stderrInfo()("Certificate Chain offset %lld", position());
    std::string chain(CHAIN_SIZE, '\0');
    if (!payload.read(chain.data(), CHAIN_SIZE))
    {
        stderrFailure()("Only %lld bytes read",
                        static_cast<long long>(payload.gcount()));
        cerrFailure();
        return false;
    }
    stderrInfo()("Metadata offset %lld", position());
    std::string metadata(METADATA_SIZE, '\0');
    if (!payload.read(metadata.data(), METADATA_SIZE))
    {
        cerrFailure();
        return false;
    }
    stderrInfo()("Signature offset %lld", position());
    std::string signature(SLOT_SIGNATURE_SIZE, '\0');
    if (!payload.read(signature.data(), SLOT_SIGNATURE_SIZE))
    {
        cerrFailure();
        return false;
    }

    if (extract_meta_data(metadata) != 0)
    {
        // What the metadata would have said is decided by the later checks.
        stderrFailure()("extract_meta_data failed. Continuing.");
    }

    RootCaFile rootCaFile;
    std::ifstream rootCaStream(ROOT_CA_FILE, std::ios::binary);
    std::error_code ignored;
    // A directory opens too, with a length that is none.
    if (!rootCaStream || fs::is_directory(fs::status(ROOT_CA_FILE, ignored)))
    {
        rootCaFile.remove();
        cerrFailure();
        return false;
    }
    rootCaStream.seekg(0, std::ios::end);
    const std::streamoff rootCaLength = rootCaStream.tellg();
    rootCaStream.seekg(0, std::ios::beg);
    // A string holds no more than that, and longer ones would be cut short
    // where a length has 32 bits.
    if (rootCaLength < 1 ||
        rootCaLength > std::numeric_limits<std::streamsize>::max())
    {
        rootCaFile.remove();
        cerrFailure();
        return false;
    }
    std::string rootCa(static_cast<std::size_t>(rootCaLength), '\0');
    rootCaStream.read(rootCa.data(),
                      static_cast<std::streamsize>(rootCaLength));

    const int result =
        verify_chain_OBMC(chain.c_str(), rootCa.c_str(),
                          std::strlen(chain.c_str()), metadata_timestamp);
    if (result != 0)
    {
        stderrInfo()("Cert Chain validation check failed.");
        if (result > 0)
        {
            stderrFailure()(
                "Certificate chain verification failed: error[%d] errstr[%s]",
                result, X509_verify_cert_error_string(result));
        }
        else
        {
            stderrFailure()("Chain verification internal error[%d]", result);
        }
        rootCaFile.remove();
        cerrFailure();
        return false;
    }
    stderrInfo()("Certificate chain verfication successful");

    // The path is only read, whatever its type says.
    const int status = verify_slot_signature(
        chain, signature, const_cast<char*>(payloadPath.c_str()));
    if (status != 0)
    {
        stderrFailure()("Signature verification failed. rc: %d", status);
        rootCaFile.remove();
        cerrFailure();
        return false;
    }
    stderrSuccess()("Signature verification successful");
    rootCaFile.remove();
    return true;
}
