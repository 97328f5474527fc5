#include "commands.hpp"

#include "common/files.hpp"
#include "common/signals.hpp"
#include "library_log.hpp"
#include "velmora.hpp"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

namespace fs = std::filesystem;

namespace velmora::front
{

namespace
{

using sdbusplus::common::xyz::openbmc_project::software::details::
    mappingVersionVersionPurpose;

constexpr const char* SHA256_COMPONENT =
    "//SoftwareComponent[@hashAlgorithm=\"SHA256\"]";
constexpr const char* ROOT_CA_FILE =
    "/var/run/obmcupdate/OpenBMCSecureBootRootCA.pem";
/** Systems that `info` lists; each costs a reading of the descriptor. */
constexpr int MAX_SYSTEMS = 64;

Answer accepted(std::string remark = {})
{
    return {Verdict::accepted, std::move(remark)};
}

Answer refused(std::string reason)
{
    return {Verdict::refused, std::move(reason)};
}

Answer unchecked(std::string reason)
{
    return {Verdict::unchecked, std::move(reason)};
}

/** Why a path cannot be read at all, or empty. */
std::string unreadable(const fs::path& path)
{
    return access(path.c_str(), R_OK) == 0 ? "" : std::strerror(errno);
}

/** A failed call on the bus: refused where a service answered with an error of
 *  its own, otherwise not checked. */
Answer busAnswer(const std::string& error)
{
    constexpr std::array<std::string_view, 6> unanswered{
        "DBus.Error.ServiceUnknown", "DBus.Error.NameHasNoOwner",
        "DBus.Error.NoReply",        "DBus.Error.Timeout",
        "DBus.Error.Disconnected",   "System.Error."};
    const bool answered = std::none_of(
        unanswered.begin(), unanswered.end(), [&error](std::string_view name)
        { return error.find(name) != std::string::npos; });
    return answered ? refused("the service answered: " + error)
                    : unchecked("the bus did not answer: " + error);
}

/** Names the first step that refuses an extracted package. */
Answer findRefusal(const fs::path& package, bool verbose)
{
    const std::string descriptor = package / "package.xml";
    const std::string signature = package / "package.xml.sign";
    const std::string payload = package / "payload";
    bool passed = false;

    if (!fs::is_regular_file(descriptor))
    {
        return refused("it has no package.xml");
    }
    const LibraryLog identity = caught(
        verbose,
        [&] { passed = ValidateQOR::validateSytemIdFromPkgXML(descriptor); });
    if (!passed)
    {
        if (!identity.busError().empty())
        {
            return unchecked("the system identifier cannot be read: " +
                             identity.busError());
        }
        return refused(identity.has("validation will continue")
                           ? "it is not for this system"
                           : "its system list cannot be checked");
    }
    if (!fs::is_regular_file(signature))
    {
        return refused("it has no package.xml.sign");
    }
    caught(verbose,
           [&]
           {
               passed =
                   ValidateQOR::validatePkgXMLSignature(descriptor, signature);
           });
    if (!passed)
    {
        return refused("the descriptor's signature is not valid");
    }
    std::string expected;
    std::string actual;
    caught(verbose,
           [&]
           {
               expected = ValidateQOR::getStrFromPkgXML(
                   descriptor, SHA256_COMPONENT, "hash");
           });
    if (expected.empty())
    {
        return refused("the descriptor states no SHA256 digest");
    }
    caught(verbose, [&] { actual = ValidateQOR::getSHAStrFromImage(payload); });
    if (actual.empty())
    {
        return refused("it has no payload directory that can be digested");
    }
    if (actual != expected)
    {
        Answer answer = refused("the payload's digest is not the descriptor's");
        answer.fields["expected digest"] = expected;
        answer.fields["payload digest"] = actual;
        return answer;
    }
    return refused("it changed while it was checked");
}

Answer validateDirectory(const fs::path& package, bool verbose)
{
    bool valid = false;
    const LibraryLog log = caught(
        verbose, [&] { valid = ValidateQOR::validateExtractedQOR(package); });
    if (valid)
    {
        return accepted();
    }
    return findRefusal(package, verbose);
}

Answer unpackInto(const std::string& package, const std::string& directory,
                  bool verbose)
{
    if (const std::string why = unreadable(package); !why.empty())
    {
        return unchecked(why);
    }
    bool done = false;
    caught(verbose, [&] { done = ValidateQOR::unZip(package, directory); });
    if (!done)
    {
        return refused("it cannot be unpacked, or lacks package.xml or "
                       "payload");
    }
    return accepted();
}

/** The enumerator's own name, behind the last dot of its D-Bus string. */
std::string_view shortName(std::string_view text)
{
    return text.substr(text.rfind('.') + 1);
}

ValidateQOR::VersionPurpose purposeFrom(const std::string& name)
{
    for (const auto& [value, text] : mappingVersionVersionPurpose)
    {
        if (name == text || name == shortName(text))
        {
            return value;
        }
    }
    throw std::invalid_argument("no such purpose: " + name);
}

ValidateQOR::ReleaseType releaseTypeFrom(const std::string& name)
{
    using ReleaseType = ValidateQOR::ReleaseType;
    if (name == "Production")
    {
        return ReleaseType::Production;
    }
    return name == "Prototype" ? ReleaseType::Prototype : ReleaseType::Other;
}

Answer inventoryAnswer(bool done, const LibraryLog& log)
{
    return done ? accepted() : busAnswer(log.busError());
}

} // namespace

Answer unpack(const Request& request)
{
    if (!fs::is_directory(request.directory))
    {
        return unchecked(request.directory + " is not a directory");
    }
    return unpackInto(request.subject, request.directory, request.verbose);
}

Answer validate(const Request& request)
{
    if (const std::string why = unreadable(request.subject); !why.empty())
    {
        return unchecked(why);
    }
    if (fs::is_directory(request.subject))
    {
        return validateDirectory(request.subject, request.verbose);
    }
    const tools::TemporaryDirectory unpacked;
    Answer answer =
        unpackInto(request.subject, unpacked.path(), request.verbose);
    // An interrupted extractor counts as successful.
    if (answer.verdict == Verdict::accepted &&
        tools::SignalCleanup::seen() == 0)
    {
        answer = validateDirectory(unpacked.path(), request.verbose);
    }
    return answer;
}

Answer info(const Request& request)
{
    const std::string descriptor = fs::path(request.subject) / "package.xml";
    if (const std::string why = unreadable(descriptor); !why.empty())
    {
        return unchecked("package.xml: " + why);
    }
    std::string model;
    std::string version;
    std::string digest;
    nlohmann::ordered_json systems = nlohmann::ordered_json::array();
    caught(request.verbose,
           [&]
           {
               model = ValidateQOR::getImageModel(request.subject);
               version = ValidateQOR::getImageVersion(request.subject);
               digest = ValidateQOR::getStrFromPkgXML(descriptor,
                                                      SHA256_COMPONENT, "hash");
               std::string system;
               for (int i = 1; i <= MAX_SYSTEMS && (i == 1 || !system.empty());
                    ++i)
               {
                   const std::string nth =
                       "(//Model[@systemID!=\"\"])[" + std::to_string(i) + "]";
                   system = ValidateQOR::getStrFromPkgXML(
                       descriptor, nth.c_str(), "systemID");
                   if (!system.empty())
                   {
                       systems.push_back(system);
                   }
               }
           });
    if (model.empty() && version.empty() && digest.empty())
    {
        return refused("package.xml is not a package descriptor");
    }
    const bool cut = systems.size() == MAX_SYSTEMS;
    Answer answer =
        accepted(cut ? "only the first systems are listed" : std::string());
    answer.fields["model"] = model;
    answer.fields["version"] = version;
    answer.fields["systems"] = systems;
    answer.fields["expected digest"] = digest;
    return answer;
}

Answer digest(const Request& request)
{
    if (const std::string why = unreadable(request.subject); !why.empty())
    {
        return unchecked(why);
    }
    const bool directory = fs::is_directory(request.subject);
    std::string text;
    const LibraryLog log =
        caught(request.verbose,
               [&]
               {
                   text = directory
                              ? ValidateQOR::getSHAStrFromImage(request.subject)
                              : calculateFileSHA(request.subject);
               });
    if (text.empty())
    {
        return unchecked("it cannot be digested");
    }
    Answer answer = accepted(
        log.failures() == 0
            ? std::string()
            : std::to_string(log.failures()) +
                  " entries are not covered: no regular file, or unreadable");
    answer.fields["digest"] = text;
    return answer;
}

Answer verifyImage(const Request& request)
{
    for (const fs::path& path :
         {fs::path(request.subject), fs::path(request.directory) / "image-ktb",
          fs::path(request.directory) / "image-ktb.sig"})
    {
        if (const std::string why = unreadable(path); !why.empty())
        {
            return unchecked(path.string() + ": " + why);
        }
    }
    int status = -1;
    const LibraryLog log =
        caught(request.verbose,
               [&]
               {
                   status = ValidateQOR::verifyManifestAndSignature(
                       request.subject, request.directory);
               });
    if (status == 0)
    {
        return accepted(log.has("Skipping signature verification")
                            ? "NOT verified: image-ktb.sig has the older "
                              "format, which skips the check"
                            : "");
    }
    if (log.has("vornFwManifestVerification() invoke"))
    {
        return unchecked("the security service did not answer");
    }
    return refused(log.lastFailure());
}

Answer verifyPayload(const Request& request)
{
    if (const std::string why = unreadable(request.subject); !why.empty())
    {
        return unchecked(why);
    }
    if (const std::string why = unreadable(ROOT_CA_FILE); !why.empty())
    {
        return unchecked(std::string(ROOT_CA_FILE) + ": " + why);
    }
    bool valid = false;
    const LibraryLog log = caught(
        request.verbose, [&]
        { valid = ValidateQOR::validateCertChainForPayload(request.subject); });
    if (valid)
    {
        return accepted();
    }
    return refused(log.lastFailure());
}

Answer purpose(const Request& request)
{
    if (!fs::is_directory(request.subject))
    {
        return unchecked("not a directory");
    }
    auto value = ValidateQOR::VersionPurpose::Unknown;
    const LibraryLog log =
        caught(request.verbose,
               [&] { value = ValidateQOR::getImagePurpose(request.subject); });
    if (!log.busError().empty())
    {
        return busAnswer(log.busError());
    }
    Answer answer = accepted();
    answer.fields["purpose"] = shortName(
        mappingVersionVersionPurpose.at(static_cast<std::size_t>(value))
            .second);
    return answer;
}

Answer addToInventory(const Request& request)
{
    int done = 0;
    const LibraryLog log =
        caught(request.verbose,
               [&]
               {
                   done = ValidateQOR::registerSWInv(
                       request.subject, request.detail1, request.detail2,
                       purposeFrom(request.purpose),
                       releaseTypeFrom(request.releaseType));
               });
    return inventoryAnswer(done == 1, log);
}

Answer removeFromInventory(const Request& request)
{
    int done = 0;
    const LibraryLog log =
        caught(request.verbose,
               [&] { done = ValidateQOR::deRegisterSWInv(request.subject); });
    return inventoryAnswer(done == 1, log);
}

Answer inventoryModel(const Request& request)
{
    std::string model;
    const LibraryLog log =
        caught(request.verbose, [&]
               { model = ValidateQOR::getInventoryModel(request.subject); });
    if (!log.busError().empty())
    {
        return busAnswer(log.busError());
    }
    Answer answer = accepted();
    answer.fields["model"] = model;
    return answer;
}

} // namespace velmora::front
