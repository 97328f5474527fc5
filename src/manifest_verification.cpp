#define LOG_BLOCK 7000

#include "bus_client.hpp"
#include "files.hpp"
#include "handles.hpp"
#include "log.hpp"
#include "manifest_container.hpp"
#include "velmora.hpp"

#include <cxxabi.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <typeinfo>
#include <vector>

namespace
{

using namespace velmora;

constexpr const char* MANIFEST_MAGIC = "$KTB";
constexpr const char* MANIFEST_FILE = "image-ktb";
constexpr const char* SIGNATURE_FILE = "image-ktb.sig";
/** A larger signature file, in bytes, has the older format. */
constexpr std::streamoff SIGNATURE_FILE_MAX_SIZE = 511;

/** r and s at the end of an image, in bytes each. */
constexpr std::size_t SIGNATURE_NUMBER_SIZE = 48;
constexpr std::size_t IMAGE_SIGNATURE_SIZE = 2 * SIGNATURE_NUMBER_SIZE;
constexpr std::size_t IMAGE_BUFFER_SIZE = std::size_t{4} * 1024 * 1024;

/** The length in front of the signer's key. */
constexpr std::size_t KEY_LENGTH_SIZE = 2;

struct SecurityReply
{
    std::uint8_t status = 0;
    std::uint32_t unused = 0;
    std::vector<std::uint8_t> key;
};

PublicKey parseKey(Bytes reply)
{
    if (reply.size() < KEY_LENGTH_SIZE)
    {
        return nullptr;
    }
    const Bytes key = reply.subspan(KEY_LENGTH_SIZE);
    const std::size_t length = loadLe16(reply, 0);
    if (length > key.size())
    {
        return nullptr;
    }
    const unsigned char* start = key.data();
    return PublicKey(d2i_PUBKEY(nullptr, &start, static_cast<long>(length)));
}

/** r and s as an ECDSA signature, or null. */
EcdsaSignature makeSignature(const unsigned char* raw)
{
    EcdsaSignature signature(ECDSA_SIG_new());
    BigNumber r(BN_bin2bn(raw, SIGNATURE_NUMBER_SIZE, nullptr));
    BigNumber s(
        BN_bin2bn(raw + SIGNATURE_NUMBER_SIZE, SIGNATURE_NUMBER_SIZE, nullptr));
    if (signature == nullptr || r == nullptr || s == nullptr ||
        ECDSA_SIG_set0(signature.get(), r.get(), s.get()) != 1)
    {
        return nullptr;
    }
    // Owned by the signature now.
    static_cast<void>(r.release());
    static_cast<void>(s.release());
    return signature;
}

/** Name of the current exception's type, as the run-time type information
 *  has it. */
const char* currentExceptionName()
{
    const std::type_info* type = abi::__cxa_current_exception_type();
    return type != nullptr ? type->name() : "null";
}

/** The steps of the operation, in its order. */
class ImageVerification
{
  public:
    static constexpr const char* OPERATION = "verifyManifestAndSignature";

    /** Whether the signature file has the older format, which is logged, too;
     *  nothing after a logged failure. */
    static std::optional<bool> hasOlderFormat(const std::string& path)
    {
        std::ifstream file = openRegularFile(path);
        if (!file.is_open())
        {
            PRINT_FAILURE("image-ktb.sig is missing, no regular file, or "
                          "cannot be opened",
                          "Error opening KTB signature file");
            return std::nullopt;
        }
        if (file.seekg(0, std::ios::end).tellg() <= SIGNATURE_FILE_MAX_SIZE)
        {
            return false;
        }
        PRINT_ANSWER("image-ktb.sig has the older format",
                     "Older version of KTB signature file is found");
        PRINT_SUCCESS(
            "the image, of which NOTHING was verified: image-ktb.sig has the "
            "older format",
            "Skipping signature verification for backward compatibility");
        return true;
    }

    /** In bytes, or nothing after a logged failure. */
    static std::optional<std::uint32_t> imageSize(std::ifstream& image,
                                                  const std::string& path)
    {
        // What is no regular file has not been opened, and has no size.
        std::error_code ignored;
        if (!image.is_open() &&
            (isRegularFile(path) || !std::filesystem::exists(path, ignored)))
        {
            PRINT_FAILURE("the image cannot be opened",
                          "Error opening ZRN tar file");
            return std::nullopt;
        }
        const std::streamoff size = image.seekg(0, std::ios::end).tellg();
        // Past 32 bits the count would wrap and only a part would be verified.
        if (size < 0 || size > std::numeric_limits<std::uint32_t>::max())
        {
            PRINT_FAILURE("the image is no regular file, or has 4 GiB or more",
                          "Payload size error");
            return std::nullopt;
        }
        return static_cast<std::uint32_t>(size);
    }

    static std::optional<SecurityReply>
        askSecurityService(const std::vector<std::uint8_t>& manifest)
    {
        try
        {
            auto bus = openSystemBus();
            auto call = bus.new_method_call(
                "xyz.openbmc_project.securityservices",
                "/xyz/openbmc_project/securityservices",
                "xyz.openbmc_project.securityservices.firmwareManifest",
                "vornFwManifestVerification");
            call.append(true, static_cast<std::uint32_t>(manifest.size()),
                        manifest);
            auto message = bus.call(call);
            SecurityReply reply;
            message.read(reply.status, reply.unused, reply.key);
            return reply;
        }
        catch (...)
        {
            LOG_INFO("msg: ", currentExceptionName());
            PRINT_FAILURE("the security service gave no usable answer",
                          "vornFwManifestVerification() invoke");
            return std::nullopt;
        }
    }

    /** Whether the service has verified the manifest. */
    static bool isAccepted(const SecurityReply& reply)
    {
        if (reply.status != 0)
        {
            PRINT_FAILURE(
                "the security service refused the manifest",
                "vornFwManifestVerification() method returned an error");
            return false;
        }
        if (reply.key.empty())
        {
            PRINT_FAILURE("the security service gave no key",
                          "Failed in verifying manifest");
            return false;
        }
        return true;
    }

    /** Checks the image's last bytes as the signature of the others, with the
     *  key array of the security service's reply. */
    static bool verifyImage(std::ifstream& image, std::uint32_t imageSize,
                            Bytes keyReply)
    {
        // Released in the reverse order: context, key, buffer.
        std::unique_ptr<char[]> buffer;
        const PublicKey key = parseKey(keyReply);
        if (key == nullptr)
        {
            PRINT_FAILURE("the security service's key cannot be read",
                          "Error in converting the public key received from "
                          "TXQ to EVP PKEY");
            return false;
        }
        const DigestContext context(EVP_MD_CTX_new());
        if (context == nullptr)
        {
            PRINT_FAILURE("no digest context could be made",
                          "Failed to create signature verifying context");
            return false;
        }
        if (EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha512(), nullptr,
                                 key.get()) <= 0)
        {
            PRINT_FAILURE("the key is not usable for ECDSA with SHA-512",
                          "Failed in EVP_DigestVerifyInit()");
            return false;
        }
        image.seekg(0, std::ios::beg);
        buffer = tryAllocate(IMAGE_BUFFER_SIZE);
        if (buffer == nullptr)
        {
            PRINT_FAILURE(
                "no memory for the image's buffer",
                "Failed to allocate buffer for signature verification");
            return false;
        }
        return digestContent(image,
                             imageSize - std::uint32_t{IMAGE_SIGNATURE_SIZE},
                             buffer.get(), context.get()) &&
               verifySignature(image, context.get());
    }

  private:
    /** Feeds @p left bytes from the stream to the verification. If the image is
     *  shorter than a signature, @p left has wrapped around, and reading fails
     *  at the end of the file. */
    static bool digestContent(std::ifstream& image, std::uint32_t left,
                              char* buffer, EVP_MD_CTX* context)
    {
        while (left != 0)
        {
            const auto size = static_cast<std::uint32_t>(
                std::min<std::size_t>(left, IMAGE_BUFFER_SIZE));
            if (!readExactly(image, buffer, size))
            {
                PRINT_FAILURE("the image is too short, or cannot be read",
                              "Failed in reading ZRN image data");
                return false;
            }
            if (EVP_DigestVerifyUpdate(context, buffer, size) <= 0)
            {
                PRINT_FAILURE("the image could not be digested",
                              "Failed in EVP_DigestVerifyUpdate()");
                return false;
            }
            left -= size;
        }
        return true;
    }

    static bool verifySignature(std::ifstream& image, EVP_MD_CTX* context)
    {
        std::array<char, IMAGE_SIGNATURE_SIZE> raw{};
        if (!readExactly(image, raw.data(), raw.size()))
        {
            PRINT_FAILURE("the image's signature cannot be read",
                          "Failed to read ZRN image signature");
            return false;
        }
        const EcdsaSignature signature =
            makeSignature(reinterpret_cast<const unsigned char*>(raw.data()));
        unsigned char* encoding = nullptr;
        const int size = signature != nullptr
                             ? i2d_ECDSA_SIG(signature.get(), &encoding)
                             : 0;
        const OpensslBytes der(encoding);
        // A signature that could not be encoded does not verify either.
        if (der == nullptr || size <= 0 ||
            EVP_DigestVerifyFinal(context, der.get(),
                                  static_cast<std::size_t>(size)) != 1)
        {
            PRINT_FAILURE("the image's signature does not verify with the key "
                          "that the security service gave",
                          "EVP_DigestVerifyFinal()");
            PRINT_ECHO("manifest_verification", "the image is refused",
                       "Signature verification failed");
            return false;
        }
        PRINT_SUCCESS("the image and its manifest",
                      "Signature verification is successful");
        return true;
    }
};

} // namespace

int ValidateQOR::verifyManifestAndSignature(const std::string& imagePath,
                                            const std::string& manifestDir)
{
    if (manifestDir.empty())
    {
        PRINT_FAILURE("no manifest directory was given",
                      "Invalid path for image-ktb");
        return -1;
    }
    const auto olderFormat =
        ImageVerification::hasOlderFormat(manifestDir + "/" + SIGNATURE_FILE);
    if (!olderFormat || *olderFormat)
    {
        return olderFormat ? 0 : -1;
    }
    std::ifstream image = openRegularFile(imagePath);
    const auto imageSize = ImageVerification::imageSize(image, imagePath);
    if (!imageSize)
    {
        return -1;
    }
    std::ifstream manifestFile =
        openRegularFile(manifestDir + "/" + MANIFEST_FILE);
    if (!manifestFile.is_open())
    {
        PRINT_FAILURE("image-ktb is no regular file that can be opened",
                      "Error opening KTB file");
        return -1;
    }
    manifestHeader header{};
    std::vector<std::uint8_t> manifest;
    if (!extractManifest(manifestFile, MANIFEST_MAGIC, header, manifest))
    {
        PRINT_FAILURE("no whole manifest could be read from image-ktb",
                      "Error in reading manifest information from the payload");
        return -1;
    }

    const auto reply = ImageVerification::askSecurityService(manifest);
    if (!reply || !ImageVerification::isAccepted(*reply))
    {
        return -1;
    }
    writeReleaseMarker(manifest);
    return ImageVerification::verifyImage(image, *imageSize, reply->key) ? 0
                                                                         : -1;
}
