#include "velmora.hpp"

#include "bus_client.hpp"
#include "handles.hpp"
#include "log.hpp"
#include "package_files.hpp"
#include "xml_parsing.hpp"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <variant>
#include <vector>

namespace velmora
{

const std::filesystem::path descriptorFileName("package.xml");
const std::filesystem::path signatureFileName("package.xml.sign");
const std::filesystem::path payloadName("payload");

} // namespace velmora

namespace
{

using namespace velmora;
namespace fs = std::filesystem;

constexpr const char* UNZIP = "/usr/bin/unzip";
constexpr const char* KEYRING_HOME = "/etc/gpg/secupkey/.gnupg/";
/** Exit status of a child whose program could not be started. */
constexpr int NOT_STARTED = 127;

bool isRegularFile(const std::string& path)
{
    std::error_code ignored;
    return fs::is_regular_file(fs::status(path, ignored));
}

/** Ends the child of a fork in which no program could be started.
 *
 *  Nothing of the parent's may run or be written twice: std::cerr is tied to
 *  std::cout and would flush what the parent has buffered, so the line goes to
 *  the descriptor directly. A reader of the log that has gone must not turn
 *  the exit into a death by SIGPIPE, which would count as a success. */
[[noreturn]] void endChild(int line = __builtin_LINE())
{
    std::signal(SIGPIPE, SIG_IGN);
    std::array<char, 64> text{};
    const int size =
        std::snprintf(text.data(), text.size(), "Line: %d [FAILURE]\n", line);
    [[maybe_unused]] const ssize_t written =
        write(STDERR_FILENO, text.data(), static_cast<std::size_t>(size));
    _exit(NOT_STARTED);
}

/** Starts the extractor for one member pattern and waits for it.
 *
 *  @param[in,out] waitStatus left as it is when the wait fails
 *  @return the process identifier, negative when the fork failed */
pid_t extract(const std::string& packagePath, const std::string& destination,
              const char* pattern, int& waitStatus)
{
    const pid_t pidUnzip = fork();
    if (pidUnzip == 0)
    {
        execl(UNZIP, UNZIP, "-o", "-q", packagePath.c_str(), "-d",
              destination.c_str(), pattern, static_cast<char*>(nullptr));
        endChild();
    }
    if (pidUnzip > 0)
    {
        waitpid(pidUnzip, &waitStatus, 0);
    }
    return pidUnzip;
}

/** Text of the first child of a node's attribute, if there is one; null where
 *  the parser cannot give it. */
std::optional<XmlText> attributeText(xmlNode* node, const char* name)
{
    const xmlAttr* attribute =
        xmlHasProp(node, reinterpret_cast<const xmlChar*>(name));
    if (attribute == nullptr || attribute->children == nullptr)
    {
        return std::nullopt;
    }
    return XmlText(xmlNodeGetContent(attribute->children));
}

std::string toString(const XmlText& text)
{
    return text != nullptr ? reinterpret_cast<const char*>(text.get()) : "";
}

/** Text of the first of the nodes that have the attribute. */
std::optional<std::string> firstValue(const xmlNodeSet& nodes, const char* name)
{
    for (int i = 0; i < nodes.nodeNr; ++i)
    {
        const auto text = nodes.nodeTab[i] != nullptr
                              ? attributeText(nodes.nodeTab[i], name)
                              : std::nullopt;
        if (text)
        {
            return *text != nullptr ? std::optional(toString(*text))
                                    : std::nullopt;
        }
    }
    return std::nullopt;
}

std::string joined(const std::string& directory, const fs::path& name)
{
    return (fs::path(directory) / name).string();
}

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
    cerrInfo("signCount: ", signCount);
    cerrInfo("gpgme_strerror(gpgmeSig->status): ",
             gpgme_strerror(gpgmeSig.status));
    cerrInfo("gpgmeSig->summary: ", static_cast<int>(gpgmeSig.summary));
    cerrInfo("gpgmeSig->timestamp: ", gpgmeSig.timestamp);
    cerrInfo("gpgmeSig->exp_timestamp: ", gpgmeSig.exp_timestamp);
    cerrInfo("gpgmeSig->wrong_key_usage: ", +gpgmeSig.wrong_key_usage);
    cerrInfo("gpgmeSig->pka_trust: ", +gpgmeSig.pka_trust);
    cerrInfo("gpgmeSig->chain_model: ", +gpgmeSig.chain_model);
    cerrInfo("gpgmeSig->validity: ", static_cast<int>(gpgmeSig.validity));
    cerrInfo("gpgmeSig->validity_reason: ", gpgmeSig.validity_reason);
    cerrInfo("gpgme_hash_algo_name(gpgmeSig->hash_algo): ",
             gpgme_hash_algo_name(gpgmeSig.hash_algo));
    cerrInfo("gpgme_pubkey_algo_name (gpgmeSig->pubkey_algo): ",
             gpgme_pubkey_algo_name(gpgmeSig.pubkey_algo));
}

/** Reads this machine's identifier from the platform service.
 *
 *  @return nothing when the property does not hold exactly two bytes; that
 *          has been logged
 *  @throws std::exception for a failure of the bus */
std::optional<std::uint16_t> readSystemId()
{
    auto bus = openSystemBus();
    auto call = bus.new_method_call("com.vorn.bmc.smad",
                                    "/xyz/openbmc_project/smad/oem",
                                    "org.freedesktop.DBus.Properties", "Get");
    call.append("xyz.openbmc_project.Inventory.Item.Oem", "BaseSystemId");
    auto reply = bus.call(call);
    std::variant<std::vector<std::uint8_t>> property;
    reply.read(property);
    const auto& bytes = std::get<std::vector<std::uint8_t>>(property);
    if (bytes.size() != 2)
    {
        cerrFailure();
        return std::nullopt;
    }
    const auto value = static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
    std::array<char, 8> hexSystemIDStr{};
    std::snprintf(hexSystemIDStr.data(), hexSystemIDStr.size(), "%04X",
                  static_cast<unsigned>(value));
    cerrInfo("hexSystemIDStr: ", hexSystemIDStr.data());
    return value;
}

/** First `systemID` of the nodes that equals the identifier, as written.
 *
 *  @throws std::invalid_argument, std::out_of_range from the conversion */
std::optional<std::string> findSystemId(const xmlNodeSet& nodes,
                                        std::uint16_t systemId)
{
    for (int i = 0; i < nodes.nodeNr; ++i)
    {
        if (nodes.nodeTab[i] == nullptr)
        {
            continue;
        }
        const auto text = attributeText(nodes.nodeTab[i], "systemID");
        if (text && std::stoi(toString(*text), nullptr, 16) == systemId)
        {
            return toString(*text);
        }
    }
    return std::nullopt;
}

} // namespace

bool ValidateQOR::unZip(const std::string& packagePath,
                        const std::string& destination)
{
    // Shared by both extractions: a wait that fails leaves it as it was.
    int pidStatus = 0;
    for (const char* pattern : {"package.xml*", "payload*"})
    {
        const pid_t pidUnzip =
            extract(packagePath, destination, pattern, pidStatus);
        if (pidUnzip < 0)
        {
            cerrInfo("pidUnzip: ", pidUnzip);
            cerrFailure();
            return false;
        }
        // Only the exit code counts, not a terminating signal.
        if (WEXITSTATUS(pidStatus) != 0)
        {
            cerrInfo("pidStatus: ", pidStatus);
            cerrFailure();
            return false;
        }
    }
    cerrSuccess();
    return true;
}

std::string ValidateQOR::getStrFromPkgXML(const std::string& descriptorPath,
                                          const char* expression,
                                          const std::string& attribute)
{
    if (!isRegularFile(descriptorPath))
    {
        cerrFailure();
        return {};
    }
    if (expression == nullptr)
    {
        cerrFailure();
        return {};
    }
    XmlDocument document = parseDescriptor(descriptorPath);
    if (document == nullptr)
    {
        cerrFailure();
        return {};
    }
    XPathContext context(xmlXPathNewContext(document.get()));
    if (context == nullptr)
    {
        cerrFailure();
        return {};
    }
    XPathResult result(xmlXPathEvalExpression(
        reinterpret_cast<const xmlChar*>(expression), context.get()));
    context.reset();
    if (result == nullptr)
    {
        cerrFailure();
        return {};
    }
    const xmlNodeSet* nodes = result->nodesetval;
    if (nodes == nullptr || nodes->nodeNr <= 0 || nodes->nodeTab == nullptr)
    {
        cerrFailure();
        // Without nodes the result does not need the document, which goes
        // first here.
        document.reset();
        return {};
    }

    auto value = firstValue(*nodes, attribute.c_str());
    if (!value)
    {
        cerrFailure();
        return {};
    }
    result.reset();
    document.reset();
    cerrSuccess();
    return std::move(*value);
}

std::string ValidateQOR::getImageModel(const std::string& packageDir)
{
    return getStrFromPkgXML(joined(packageDir, descriptorFileName), "//Device",
                            "componentID");
}

std::string ValidateQOR::getImageVersion(const std::string& packageDir)
{
    return getStrFromPkgXML(joined(packageDir, descriptorFileName),
                            "//SoftwareComponent", "vendorVersion");
}

bool ValidateQOR::validatePkgXMLSignature(const std::string& descriptorPath,
                                          const std::string& signaturePath)
{
    if (!isRegularFile(descriptorPath) || !isRegularFile(signaturePath))
    {
        cerrFailure();
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
        cerrInfo("gpgmeStrErr: ", gpgme_strerror(error));
        cerrFailure();
        return false;
    }
    const gpgme_verify_result_t verified =
        gpgme_op_verify_result(verification.context.get());
    if (verified == nullptr)
    {
        cerrInfo("err: ", "gpgme_op_verify_result failed");
        cerrFailure();
        return false;
    }
    if (verified->signatures == nullptr)
    {
        cerrFailure();
        return false;
    }
    int signCount = 0;
    for (const _gpgme_signature* gpgmeSig = verified->signatures;
         gpgmeSig != nullptr; gpgmeSig = gpgmeSig->next)
    {
        logSignature(++signCount, *gpgmeSig);
        if ((gpgmeSig->summary & GPGME_SIGSUM_VALID) != 0)
        {
            cerrSuccess();
            return true;
        }
    }
    cerrFailure();
    return false;
}

bool ValidateQOR::validateSytemIdFromPkgXML(const std::string& descriptorPath)
{
    std::optional<std::uint16_t> systemId;
    try
    {
        systemId = readSystemId();
    }
    catch (const std::exception& e)
    {
        reportBusError(e);
        return false;
    }
    if (!systemId)
    {
        return false;
    }

    if (!isRegularFile(descriptorPath))
    {
        cerrFailure();
        return false;
    }
    XmlDocument document = parseDescriptor(descriptorPath);
    if (document == nullptr)
    {
        cerrFailure();
        return false;
    }
    XPathContext context(xmlXPathNewContext(document.get()));
    if (context == nullptr)
    {
        cerrFailure();
        return false;
    }
    XPathResult result(xmlXPathEvalExpression(
        reinterpret_cast<const xmlChar*>("//Model"), context.get()));
    context.reset();
    if (result == nullptr || result->nodesetval == nullptr)
    {
        cerrFailure();
        // Without nodes the result does not need the document, which goes
        // first here and below.
        document.reset();
        return false;
    }
    const xmlNodeSet& nodes = *result->nodesetval;
    if (nodes.nodeNr <= 0)
    {
        cerrInfo("xmlXPathNodeNr: ", nodes.nodeNr);
        stderrInfo()("No system IDs listed in the package XML, hence system ID "
                     "validation bypassed");
        document.reset();
        return true;
    }
    stderrInfo()("System IDs listed in the package XML, hence system ID "
                 "validation will continue.");
    cerrInfo("xmlXPathNodeNr: ", nodes.nodeNr);
    if (nodes.nodeTab == nullptr)
    {
        cerrFailure();
        document.reset();
        return false;
    }

    const auto searchFound = findSystemId(nodes, *systemId);
    if (!searchFound)
    {
        cerrFailure();
    }
    result.reset();
    document.reset();
    if (!searchFound)
    {
        cerrFailure();
        return false;
    }
    cerrInfo("searchFound: ", *searchFound);
    cerrSuccess();
    return true;
}

bool ValidateQOR::validateExtractedQOR(const std::string& packageDir)
{
    std::error_code ignored;
    if (!fs::is_directory(fs::status(packageDir, ignored)))
    {
        cerrFailure();
        return false;
    }
    const std::string descriptorPath = joined(packageDir, descriptorFileName);
    const std::string signaturePath = joined(packageDir, signatureFileName);
    if (!validateSytemIdFromPkgXML(descriptorPath))
    {
        cerrFailure();
        return false;
    }
    if (!validatePkgXMLSignature(descriptorPath, signaturePath))
    {
        cerrFailure();
        return false;
    }
    const std::string sha256FromPkgXML = getStrFromPkgXML(
        descriptorPath, "//SoftwareComponent[@hashAlgorithm=\"SHA256\"]",
        "hash");
    if (sha256FromPkgXML.empty())
    {
        cerrFailure();
        return false;
    }
    const std::string sha256FromImage =
        getSHAStrFromImage(joined(packageDir, payloadName));
    if (sha256FromImage.empty())
    {
        cerrFailure();
        return false;
    }
    cerrInfo("sha256FromPkgXML: ", sha256FromPkgXML);
    cerrInfo("sha256FromImage: ", sha256FromImage);
    if (sha256FromPkgXML != sha256FromImage)
    {
        cerrFailure();
        return false;
    }
    cerrSuccess();
    return true;
}
