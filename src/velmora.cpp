#define LOG_BLOCK 1000

#include "velmora.hpp"

#include "files.hpp"
#include "log.hpp"

#include <filesystem>
#include <string>
#include <system_error>

using namespace velmora;

bool ValidateQOR::validateExtractedQOR(const std::string& packageDir)
{
    std::error_code ignored;
    if (!hasType(std::filesystem::file_type::directory,
                 std::filesystem::status(packageDir, ignored), packageDir))
    {
        LOG_FAILURE("the package directory is missing or no directory");
        return false;
    }
    const std::string descriptorPath = joined(packageDir, DESCRIPTOR_FILE_NAME);
    const std::string signaturePath = joined(packageDir, SIGNATURE_FILE_NAME);
    if (!validateSytemIdFromPkgXML(descriptorPath))
    {
        LOG_ECHO("system_identity", "the system identity check refused");
        return false;
    }
    if (!validatePkgXMLSignature(descriptorPath, signaturePath))
    {
        LOG_ECHO("descriptor_signature",
                 "the descriptor's signature check refused");
        return false;
    }
    const std::string sha256FromPkgXML = getStrFromPkgXML(
        descriptorPath, "//SoftwareComponent[@hashAlgorithm=\"SHA256\"]",
        "hash");
    if (sha256FromPkgXML.empty())
    {
        LOG_ECHO("descriptor_query", "the descriptor states no SHA256 hash");
        return false;
    }
    const std::string sha256FromImage =
        getSHAStrFromImage(joined(packageDir, PAYLOAD_NAME));
    if (sha256FromImage.empty())
    {
        LOG_ECHO("payload_digest", "the payload has no digest");
        return false;
    }
    LOG_INFO("sha256FromPkgXML: ", sha256FromPkgXML);
    LOG_INFO("sha256FromImage: ", sha256FromImage);
    if (sha256FromPkgXML != sha256FromImage)
    {
        LOG_FAILURE("the payload's digest is not the descriptor's");
        return false;
    }
    LOG_SUCCESS("the whole package");
    return true;
}
