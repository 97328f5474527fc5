#pragma once

#include <array>
#include <cstdint>
#include <fstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/** @file Public interface of libvelmora: firmware-package validation for a
 *  BMC's update daemon.
 *
 *  Results. `bool`: true when the check passed or the work was done.
 *  `std::string`: empty when the value could not be obtained. `int` status: 0
 *  for success. A failure has been logged to the standard error stream before
 *  it is returned (but for extractManifest, which leaves it to its caller);
 *  the log alone tells its cause.
 *
 *  Exceptions. Failures of the standard library (std::bad_alloc and the like)
 *  reach the caller from every operation; others are listed with the
 *  operation.
 *
 *  Threads. No operation starts a thread or takes a lock, and several change
 *  process-wide state, which is named at each. Calls must be serialised by the
 *  caller, and none may be made from within another one (an error function, a
 *  memory function, a stream's buffer) but where it says so. Every operation
 *  blocks until its work is done.
 */

/** The version that this header belongs to. */
#define VELMORA_VERSION_MAJOR 1
#define VELMORA_VERSION_MINOR 0
#define VELMORA_VERSION_PATCH 0

#define VELMORA_EXPORT __attribute__((visibility("default")))

/** OpenSSL's certificate and public key, as in <openssl/types.h>. */
typedef struct x509_st X509;
typedef struct evp_pkey_st EVP_PKEY;

#if !defined(VELMORA_OWN_VERSION) &&                                           \
    __has_include(<xyz/openbmc_project/Software/Version/common.hpp>)

/* The platform has a header of its own for this interface, as the generator of
 * phosphor-dbus-interfaces makes it. Its enumerations are used, so that a unit
 * may include both headers, in either order. */
#include <xyz/openbmc_project/Software/Version/common.hpp>

#include <initializer_list>
#include <type_traits>

namespace velmora
{

/** Whether the values are 0, 1, 2 and so on, passed as the library's are. */
template <typename Enumeration>
constexpr bool countUp(std::initializer_list<Enumeration> values)
{
    int next = 0;
    for (const Enumeration value : values)
    {
        if (static_cast<int>(value) != next)
        {
            return false;
        }
        ++next;
    }
    return std::is_same_v<std::underlying_type_t<Enumeration>, int>;
}

template <typename Version>
constexpr bool hasThisSystemsEntries()
{
    return requires {
        typename Version::VersionPurpose;
        typename Version::ReleaseType;
        requires countUp<typename Version::VersionPurpose>(
            {Version::VersionPurpose::Unknown, Version::VersionPurpose::Other,
             Version::VersionPurpose::System, Version::VersionPurpose::BMC,
             Version::VersionPurpose::Host, Version::VersionPurpose::PSU,
             Version::VersionPurpose::SEPBP, Version::VersionPurpose::BIOS,
             Version::VersionPurpose::CPLD, Version::VersionPurpose::TORLU,
             Version::VersionPurpose::FLOPCPLD, Version::VersionPurpose::TPM,
             Version::VersionPurpose::RFCMCU, Version::VersionPurpose::VALVEMCU,
             Version::VersionPurpose::LEAKMCU});
        requires countUp<typename Version::ReleaseType>(
            {Version::ReleaseType::Other, Version::ReleaseType::Production,
             Version::ReleaseType::Prototype});
    };
}

/** What a header without the type has instead, so that the one error is that
 *  of the assertion below. */
template <typename Version>
struct ReleaseTypeOf
{
    enum class Type
    {
    };
};

template <typename Version>
    requires requires { typename Version::ReleaseType; }
struct ReleaseTypeOf<Version>
{
    using Type = typename Version::ReleaseType;
};

using PlatformVersion =
    sdbusplus::common::xyz::openbmc_project::software::Version;
using PlatformReleaseType = ReleaseTypeOf<PlatformVersion>::Type;

static_assert(
    hasThisSystemsEntries<PlatformVersion>(),
    "the platform's <xyz/openbmc_project/Software/Version/common.hpp> has not "
    "this system's entries: define VELMORA_OWN_VERSION and include velmora.hpp "
    "in a source unit that does not include that header, as "
    "examples/inventory.cpp does");

} // namespace velmora

#else

namespace sdbusplus::common::xyz::openbmc_project::software
{

/** Enumerations of the D-Bus interface xyz.openbmc_project.Software.Version,
 *  with this system's own purposes from SEPBP on. */
class VELMORA_EXPORT Version
{
  public:
    /** What an image is firmware for. */
    enum class VersionPurpose
    {
        Unknown,
        Other,
        System,
        BMC,
        Host,
        PSU,
        SEPBP,
        BIOS,
        CPLD,
        TORLU,
        FLOPCPLD,
        TPM,
        RFCMCU,
        VALVEMCU,
        LEAKMCU,
    };

    enum class ReleaseType
    {
        Other,
        Production,
        Prototype,
    };

    Version() = delete;
};

namespace details
{

/** Every purpose with its D-Bus string, in the order of the values. A program
 *  that converts purposes itself has another table of this name, which takes
 *  the place of this one and may be shorter: it must not be read there. The
 *  library does not look at it. */
extern VELMORA_EXPORT const
    std::array<std::pair<Version::VersionPurpose, std::string_view>, 15>
        mappingVersionVersionPurpose;

} // namespace details

} // namespace sdbusplus::common::xyz::openbmc_project::software

namespace velmora
{
using PlatformReleaseType =
    sdbusplus::common::xyz::openbmc_project::software::Version::ReleaseType;
}

#endif

/** First 16 bytes of a firmware manifest, as stored (integers
 *  little-endian). Only sizes and offsets in bytes. */
struct manifestHeader
{
    char magic[4];              /**< "$KTB", not terminated */
    std::uint32_t recordOffset; /**< of the first record, from the magic */
    std::uint32_t recordCount;  /**< bounds the walk over the records */
    std::uint32_t length;       /**< of the whole manifest, header included */
};
static_assert(sizeof(manifestHeader) == 16);

/** Signature algorithm ("PS256", "PS384" or "PS512") of the last metadata
 *  block that named one; empty at load. Set by
 *  ValidateQOR::extract_meta_data, read by
 *  ValidateQOR::verify_slot_signature. */
extern VELMORA_EXPORT std::string metadata_algo;

/** SHA-256 digest of one regular file.
 *
 *  @param filePath a regular file; opened as it is, relative paths from the
 *         working directory
 *  @return 64 lower-case hexadecimal characters; 64 zeros when the file was
 *          opened and could not be read whole or digested; empty when it cannot
 *          be opened or is no regular file (links are followed)
 *  @throws std::bad_alloc when no buffer of the file's length (only reserved,
 *          not filled) can be had */
VELMORA_EXPORT std::string calculateFileSHA(const std::string& filePath);

/** The library's operations; never instantiated. */
class VELMORA_EXPORT ValidateQOR
{
  public:
    using VersionPurpose = sdbusplus::common::xyz::openbmc_project::software::
        Version::VersionPurpose;
    using ReleaseType = velmora::PlatformReleaseType;

    ValidateQOR() = delete;

    /** @name Packages */
    ///@{

    /** Extracts descriptor, signature and payload with /usr/bin/unzip, in two
     *  child processes that are waited for.
     *
     *  Existing files of the same names are overwritten; a failure leaves what
     *  was extracted until then. The process must be in a state in which it
     *  may fork, must not ignore SIGCHLD or reap the children elsewhere, and
     *  its signal handlers have SA_RESTART: an extractor whose end cannot be
     *  waited for, or that a signal ended, counts as successful. The children
     *  have no input (/dev/null is needed), no terminal, no file descriptor of
     *  the process's but 1 and 2, and none of the variables UNZIP, UNZIPOPT,
     *  ZIPINFO, ZIPINFOOPT.
     *
     *  @param packagePath ZIP archive
     *  @param destination existing directory
     *  @return whether both extractions ended with exit code 0 */
    static bool unZip(const std::string& packagePath,
                      const std::string& destination);

    /** One attribute of the first selected node that has it.
     *
     *  Replaces libxml2's memory functions, entity loader and structured error
     *  function while it works, and cleans up its process-wide parser state.
     *  Refuses a document of more than 256 KiB, one of more than 8 KiB that has
     *  a document type, and one beyond another limit (docs/security.md). What
     *  is wrong with it goes to libxml2's generic error function as one line.
     *  That function may call the library.
     *
     *  @param descriptorPath XML file
     *  @param expression XPath 1.0 expression that selects elements, or null
     *  @param attribute name, case-sensitive
     *  @return the value, or empty */
    static std::string getStrFromPkgXML(const std::string& descriptorPath,
                                        const char* expression,
                                        const std::string& attribute);

    /** @param packageDir extracted package
     *  @return `componentID` of the descriptor's `Device`, or empty
     *  @see getStrFromPkgXML for the side effects */
    static std::string getImageModel(const std::string& packageDir);

    /** @param packageDir extracted package
     *  @return `vendorVersion` of its `SoftwareComponent`, or empty
     *  @see getStrFromPkgXML for the side effects */
    static std::string getImageVersion(const std::string& packageDir);

    /** Whether at least one detached OpenPGP signature over the descriptor is
     *  fully valid for the keyring in "/etc/gpg/secupkey/.gnupg/".
     *
     *  Sets the process locale from the environment (all categories) and
     *  GPGME's default locale. Runs the gpg engine in a child process.
     *
     *  @param descriptorPath signed file
     *  @param signaturePath binary or armoured signature (RFC 4880) */
    static bool validatePkgXMLSignature(const std::string& descriptorPath,
                                        const std::string& signaturePath);

    /** Whether the descriptor lists this system, or lists none.
     *
     *  Reads the 16-bit identifier from com.vorn.bmc.smad on the system bus.
     *  A `systemID` that matches and is longer than 1,024 bytes is refused.
     *
     *  @see getStrFromPkgXML for the limits and the parser's state
     *  @param descriptorPath XML file
     *  @throws std::invalid_argument for a `systemID` that is not hexadecimal
     *  @throws std::out_of_range for one outside 32 signed bits; either only
     *          when it comes before a match */
    static bool validateSytemIdFromPkgXML(const std::string& descriptorPath);

    /** Whether an extracted package may be trusted: it is for this system, its
     *  descriptor is signed, and its payload has the signed digest.
     *
     *  @param packageDir extracted package, left as it is
     *  @throws what validateSytemIdFromPkgXML and getSHAStrFromImage throw
     *  @see validateSytemIdFromPkgXML, validatePkgXMLSignature and
     *       getStrFromPkgXML for the side effects */
    static bool validateExtractedQOR(const std::string& packageDir);

    /** Composite SHA-256 of a directory: over the joined digest texts of its
     *  regular files, in the byte order of their paths. Subdirectories are not
     *  entered; what is not a regular file, or cannot be opened, is left out.
     *  A file that can be opened but not be read whole counts as 64 zeros.
     *
     *  @param payloadPath directory
     *  @return 64 lower-case hexadecimal characters; empty when it is not a
     *          directory or the digest fails
     *  @throws std::filesystem::filesystem_error when the directory or the
     *          status of an entry cannot be read
     *  @throws std::bad_alloc as calculateFileSHA does */
    static std::string getSHAStrFromImage(const std::string& payloadPath);

    ///@}
    /** @name Firmware images */
    ///@{

    /** Copies the first manifest in a file.
     *
     *  @param file open for binary input, at its start; its position is moved.
     *              It is read to its end: one whose exceptions() hold failbit,
     *              eofbit or badbit may throw there
     *  @param magic to search for, "$KTB"
     *  @param[out] header first 16 bytes of the manifest; may be filled in
     *              part on failure
     *  @param[out] manifest `header.length` bytes, header included; left as it
     *              is on failure
     *  @return false when there is no magic, no whole manifest behind it, or no
     *          storage for its length */
    static bool extractManifest(std::ifstream& file, const std::string& magic,
                                manifestHeader& header,
                                std::vector<std::uint8_t>& manifest);

    /** Verifies an image with the key that the security service gives for its
     *  manifest: ECDSA over SHA-512 (FIPS 186-4), r and s of 48 bytes each at
     *  the image's end.
     *
     *  Asks xyz.openbmc_project.securityservices on the system bus. Writes the
     *  manifest's release marker, if it has one, to /tmp/ingressRelease, but
     *  not where that is anything but a regular file with one name.
     *
     *  @param imagePath regular file under 4 GiB
     *  @param manifestDir directory of "image-ktb" and "image-ktb.sig"
     *  @return 0 when the signature verifies, and also, with nothing verified,
     *          when "image-ktb.sig" has the older format (512 bytes or more);
     *          -1 otherwise */
    static int verifyManifestAndSignature(const std::string& imagePath,
                                          const std::string& manifestDir);

    ///@}
    /** @name Signed payloads */
    ///@{

    /** Parses a metadata block such as
     *  `{"ver": "1", "alg": "PS384", "sts": "1700000000"}`.
     *
     *  Sets ::metadata_algo when the block names an algorithm, and the
     *  process-wide timestamp that the chain verification uses.
     *
     *  @param[in,out] block 512 bytes, text up to the first NUL; delimiters
     *                 are overwritten, the length stays
     *  @return 0; 9 no token, 10 no version, 11 no timestamp, 12 timestamp not
     *          convertible, 13 no algorithm known */
    static int extract_meta_data(std::string& block);

    /** Verifies a signed payload's RSA-PSS signature (RFC 8017) with the key
     *  of the first certificate of its chain, which must be trusted already.
     *
     *  Writes "certchain", "publickey" and "hashfunc" in
     *  /var/run/velmora/Zarnholt/, whether the signature verifies or not. A
     *  payload that is truncated meanwhile raises SIGBUS.
     *
     *  @param chain the 24,576 bytes of the chain area; a shorter one counts
     *               as padded with NUL bytes, a longer one is refused
     *  @param signature the 512 bytes of the signature field; a shorter one
     *                   does not verify
     *  @param payloadPath file, or null
     *  @return 0 verified; 1 bad argument, 2 open, 3 fstat, 4 payload too
     *          short, 5 mmap, 7 certificate, 8 its key, 10 key not of 4096
     *          bits, 11 verification set-up, 13 signature, 14 munmap, 15 close,
     *          16 digest context, 17 "publickey" not written */
    static int verify_slot_signature(const std::string& chain,
                                     const std::string& signature,
                                     char* payloadPath);

    /** First certificate of a PEM chain; writes "certchain" in
     *  /var/run/velmora/Zarnholt/.
     *
     *  @param chain the 24,576 bytes of the chain area; a shorter one counts
     *               as padded with NUL bytes, a longer one is refused
     *  @return to be freed with X509_free, or null */
    static X509* getX509Cert(const std::string& chain);

    /** Writes "publickey" (PEM) in /var/run/velmora/Zarnholt/.
     *
     *  @param key borrowed */
    static bool createPublicKeyFile(EVP_PKEY* key);

    /** Writes "hashfunc" in /var/run/velmora/Zarnholt/; reports no error. */
    static void createHashFuncFile();

    /** Whether a signed payload's certificate chain leads to the secure-boot
     *  root CA and its slot signature verifies.
     *
     *  Consumes /var/run/obmcupdate/OpenBMCSecureBootRootCA.pem: once the
     *  metadata block has been parsed, the file is removed whatever the
     *  outcome. It stays if memory ends before, and if the payload is truncated
     *  while it is mapped: that ends the process with SIGBUS.
     *
     *  @param payloadPath file of more than 76,800 bytes
     *  @see extract_meta_data and verify_slot_signature for the side effects */
    static bool validateCertChainForPayload(const std::string& payloadPath);

    ///@}
    /** @name Software inventory
     *
     *  All ask the inventory manager on the system bus, and throw
     *  sdbusplus::exception::SdBusError when the method call cannot be
     *  created, which is so when the bus cannot be reached. */
    ///@{

    /** Purpose of an extracted package.
     *
     *  @param packageDir extracted package
     *  @return `Unknown` when the inventory manager does not answer
     *  @throws sdbusplus::exception::InvalidEnumString when it answers with
     *          what is no purpose */
    static VersionPurpose getImagePurpose(const std::string& packageDir);

    /** Publishes a software object.
     *
     *  @param inventoryPath at least 38 characters; what follows them names
     *                       the object below /xyz/openbmc_project/software/
     *  @param swDetail1 handed on to the inventory manager
     *  @param swDetail2 handed on to the inventory manager
     *  @return 1 done, 0 failed
     *  @throws std::out_of_range for a shorter path
     *  @throws std::invalid_argument for a purpose or release type without a
     *          D-Bus string */
    static int registerSWInv(const std::string& inventoryPath,
                             const std::string& swDetail1,
                             const std::string& swDetail2,
                             const VersionPurpose& purpose,
                             const ReleaseType& releaseType);

    /** registerSWInv with the arguments in another order. */
    static int registerInventory(const std::string& swDetail1,
                                 const VersionPurpose& purpose,
                                 const ReleaseType& releaseType,
                                 const std::string& ignoredText,
                                 const std::string& inventoryPath,
                                 const std::string& swDetail2);

    /** Withdraws the software object of an inventory path.
     *
     *  @return 1 done, 0 failed
     *  @throws std::out_of_range for a path under 38 characters */
    static int deRegisterSWInv(const std::string& inventoryPath);

    /** deRegisterSWInv of the last argument; the others are ignored. */
    static int deregisterInventory(const std::string& swDetail1,
                                   const VersionPurpose& purpose,
                                   const ReleaseType& releaseType,
                                   const std::string& ignoredText,
                                   const std::string& inventoryPath);

    /** Model that the inventory manager publishes for an inventory path.
     *
     *  @return the model, which may be empty, or empty on failure
     *  @throws std::out_of_range for a path under 38 characters */
    static std::string getInventoryModel(const std::string& inventoryPath);

    ///@}
};
