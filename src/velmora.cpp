#include "velmora.hpp"

#include "log.hpp"
#include "package_files.hpp"

#include <filesystem>
#include <string>
#include <system_error>

namespace velmora
{

const std::filesystem::path descriptorFileName("package.xml");
const std::filesystem::path signatureFileName("package.xml.sign");
const std::filesystem::path payloadName("payload");

} // namespace velmora

using namespace velmora;
namespace fs = std::filesystem;

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
