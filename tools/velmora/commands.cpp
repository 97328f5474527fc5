#include "commands.hpp"

#include "common/files.hpp"
#include "common/signals.hpp"
#include "package_contents.hpp"
#include "run.hpp"
#include "signer.hpp"

#include <fcntl.h>
#include <sys/resource.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace fs = std::filesystem;

namespace velmora::front
{

namespace
{

constexpr const char* SHA256_COMPONENT =
    "//SoftwareComponent[@hashAlgorithm=\"SHA256\"]";
constexpr const char* ROOT_CA_FILE =
    "/var/run/obmcupdate/OpenBMCSecureBootRootCA.pem";
constexpr const char* SECURITY_SERVICE = "xyz.openbmc_project.securityservices";
constexpr const char* OLDER_FORMAT =
    "image-ktb.sig has the older format, which skips the check";
/** Systems that are listed; each costs a reading of the descriptor. */
constexpr int MAX_SYSTEMS = 64;
/** A larger image-ktb.sig, in bytes, has the older format. */
constexpr std::uintmax_t SIGNATURE_FILE_MAX_SIZE = 511;
/** Where a signed payload has its metadata, and how much; in bytes. */
constexpr std::streamoff METADATA_FROM_END = 76800 - 24576;
constexpr std::size_t METADATA_SIZE = 512;
/** A file system without room for so many bytes is full. */
constexpr off_t ROOM = 65536;
/** The extractor may always write so much into a file, in bytes. */
constexpr std::uint64_t MIN_FILE_LIMIT = 1 << 20;

Answer refused(std::string reason)
{
    return Answer(Verdict::refused, std::move(reason));
}

Answer unchecked(std::string reason)
{
    return Answer(Verdict::unchecked, std::move(reason));
}

/** @throws std::runtime_error when a path cannot be read at all */
void expectReadable(const Request& request, const fs::path& path)
{
    const std::string name =
        path == request.subject ? "" : path.string() + ": ";
    std::error_code ignored;
    const auto type = fs::status(path, ignored).type();
    if (access(path.c_str(), R_OK) != 0)
    {
        throw std::runtime_error(name + std::strerror(errno));
    }
    if (type != fs::file_type::regular && type != fs::file_type::directory)
    {
        throw std::runtime_error(name + "neither a file nor a directory");
    }
}

/** Whether a service answered, if only with an error of its own. */
bool hasAnswered(std::string_view exception)
{
    constexpr std::array<std::string_view, 6> unanswered{
        "org.freedesktop.DBus.Error.ServiceUnknown",
        "org.freedesktop.DBus.Error.NameHasNoOwner",
        "org.freedesktop.DBus.Error.NoReply",
        "org.freedesktop.DBus.Error.Timeout",
        "org.freedesktop.DBus.Error.Disconnected",
        "System.Error."};
    // In front of the error's name stands the step that failed.
    const auto name = exception.substr(exception.find(' ') + 1);
    return std::ranges::none_of(unanswered, [name](std::string_view error)
                                { return name.starts_with(error); });
}

/** Whether a service is on the bus. */
bool hasOwner(const char* name)
{
    sd_bus* bus = nullptr;
    sd_bus_open_system(&bus);
    const tools::Handle<sd_bus, sd_bus_flush_close_unref> owner(bus);
    return bus != nullptr && sd_bus_get_name_creds(bus, name, 0, nullptr) >= 0;
}

/** What came of an operation, as the log tells it.
 *
 *  @param answered the verdict where a service answered with an error */
Answer answerFrom(const Outcome& outcome, Verdict answered = Verdict::unchecked)
{
    const Operation& refusal = outcome.refusal;
    if (outcome.passed)
    {
        return Answer();
    }
    Answer answer = refused(refusal.reason());
    answer.refusal = refusal;
    if (!refusal.exception.empty())
    {
        const bool has = hasAnswered(refusal.exception);
        answer.verdict = has ? answered : Verdict::unchecked;
        answer.reason =
            refusal.site.text +
            (has ? ": it answered with an error: " : ": it did not answer: ") +
            refusal.exception;
    }
    return answer;
}

/** Whether @p directory may have been too full for an extraction. */
bool isFull(const fs::path& directory)
{
    const tools::FileDescriptor probe(
        open(directory.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
    const int error =
        probe.get() < 0 ? errno : posix_fallocate(probe.get(), 0, ROOM);
    return error == ENOSPC || error == EDQUOT;
}

/** Bounds what the extractor may write into one file. */
void limitFiles(std::uint64_t size)
{
    struct rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = std::min<rlim_t>(
        limit.rlim_cur,
        static_cast<rlim_t>(std::max(size, MIN_FILE_LIMIT) + 1));
    setrlimit(RLIMIT_FSIZE, &limit);
    // A write beyond fails then; the signal would end the process.
    std::signal(SIGXFSZ, SIG_IGN);
}

/** Unpacks under a name of our own: the extractor reads names as patterns. */
Answer extract(const Request& request, const fs::path& work,
               const fs::path& destination)
{
    const fs::path link = work / "package.zip";
    fs::create_symlink(fs::absolute(request.subject), link);
    const Outcome outcome =
        run(request.verbose, [&]
            { return ValidateQOR::unZip(link, fs::absolute(destination)); });
    return !outcome.passed && isFull(destination)
               ? unchecked("no room is left in " + destination.string())
               : answerFrom(outcome);
}

std::string tooLarge(const Request& request)
{
    return "it has more than " + std::to_string(request.maxSize) + " bytes";
}

/** What a strict check finds wrong with an unpacked package, or empty. */
std::string objectionTo(const PackageContents& contents, const Request& request)
{
    return !request.strict                   ? ""
           : contents.size > request.maxSize ? tooLarge(request)
           : contents.uncoveredCount > 0     ? contents.remark()
           : contents.payloadFiles == 0      ? "its payload is empty"
                                             : "";
}

/** Identifiers that a descriptor lists, as they are written. */
std::vector<std::string> systemsOf(const std::string& descriptor)
{
    std::vector<std::string> systems;
    std::string system = "first";
    for (int i = 1; i <= MAX_SYSTEMS && !system.empty(); ++i)
    {
        const std::string nth =
            "(//Model[@systemID!=\"\"])[" + std::to_string(i) + "]";
        system =
            ValidateQOR::getStrFromPkgXML(descriptor, nth.c_str(), "systemID");
        systems.push_back(system);
    }
    systems.resize(systems.size() - (system.empty() ? 1 : 0));
    return systems;
}

/** Why the library throws at a descriptor's identifiers. */
std::string systemProblem(const std::string& descriptor)
{
    for (const std::string& system : systemsOf(descriptor))
    {
        try
        {
            static_cast<void>(std::stoi(system, nullptr, 16));
        }
        catch (const std::out_of_range&)
        {
            return "a systemID of the descriptor is too large: " + system;
        }
        catch (const std::invalid_argument&)
        {
            return "a systemID of the descriptor is no number: " + system;
        }
    }
    return "a systemID of the descriptor is no number";
}

/** Says who has signed, or what is wrong with the signature. */
void addSigner(Answer& answer, const fs::path& package)
{
    const Signer signer =
        findSigner(package / "package.xml", package / "package.xml.sign");
    const std::string who = signer.userId +
                            (signer.userId.empty() ? "" : ", ") +
                            signer.fingerprint;
    if (!signer.fingerprint.empty())
    {
        answer.reason = answer.isVerified
                            ? "signed by " + who
                            : answer.refusal.site.text + ": " + signer.problem +
                                  (signer.userId.empty() ? " " : ": ") + who;
        answer.fields["signer"] = {{"fingerprint", signer.fingerprint},
                                   {"userId", signer.userId}};
    }
}

Answer validateDirectory(const Request& request, const fs::path& package)
{
    PackageContents contents;
    contents.addPackage(package);
    std::string objection = objectionTo(contents, request);
    if (!objection.empty())
    {
        return refused(objection);
    }
    const auto judge = [&]
    {
        try
        {
            return ValidateQOR::validateExtractedQOR(package);
        }
        catch (const std::logic_error&)
        {
            objection = systemProblem(package / "package.xml");
            return false;
        }
    };
    Answer answer =
        answerFrom(run(request.verbose,
                       [&]
                       {
                           const bool isValid = judge();
                           if (isValid && request.strict &&
                               systemsOf(package / "package.xml").empty())
                           {
                               objection = "its descriptor names no Model";
                           }
                           return isValid && objection.empty();
                       }));
    if (!objection.empty())
    {
        return refused(objection);
    }
    answer.isVerified = answer.verdict == Verdict::accepted;
    if (answer.isVerified ||
        answer.refusal.site.file.starts_with("descriptor_signature"))
    {
        addSigner(answer, package);
    }
    if (answer.isVerified && contents.uncoveredCount > 0)
    {
        answer.reason += "; " + contents.remark();
        answer.fields["notCovered"] = contents.uncovered;
    }
    return answer;
}

Answer inventoryAnswer(const Request& request,
                       const std::function<bool()>& work)
{
    return answerFrom(run(request.verbose, work), Verdict::refused);
}

/** What a strict check finds wrong with the size of a file, or empty. */
std::string sizeObjection(const Request& request, const fs::path& path)
{
    if (!request.strict)
    {
        return "";
    }
    if (!fs::is_regular_file(path))
    {
        return path.filename().string() + " is no regular file";
    }
    return fs::file_size(path) > request.maxSize ? tooLarge(request) : "";
}

bool isMetadataGood(const std::string& payload)
{
    std::ifstream file(payload, std::ios::binary);
    std::string metadata(METADATA_SIZE, '\0');
    file.seekg(-METADATA_FROM_END, std::ios::end);
    file.read(metadata.data(), METADATA_SIZE);
    return ValidateQOR::extract_meta_data(metadata) == 0;
}

} // namespace

Answer unpack(const Request& request)
{
    expectReadable(request, request.subject);
    if (!fs::is_directory(request.directory))
    {
        return unchecked(request.directory + " is not a directory");
    }
    const tools::TemporaryDirectory work;
    return extract(request, work.path(), request.directory);
}

Answer validate(const Request& request)
{
    expectReadable(request, request.subject);
    if (fs::is_directory(request.subject))
    {
        return validateDirectory(request, request.subject);
    }
    const tools::TemporaryDirectory work;
    const fs::path unpacked = work.path() / "unpacked";
    fs::create_directory(unpacked);
    if (request.strict)
    {
        limitFiles(request.maxSize);
    }
    Answer answer = extract(request, work.path(), unpacked);
    if (answer.verdict == Verdict::accepted)
    {
        // An interrupted extractor counts as successful.
        return tools::SignalCleanup::seen() == 0
                   ? validateDirectory(request, unpacked)
                   : unchecked("it was interrupted");
    }
    PackageContents contents;
    contents.addPackage(unpacked);
    return request.strict && contents.size > request.maxSize
               ? refused(tooLarge(request))
               : answer;
}

Answer info(const Request& request)
{
    const std::string descriptor = fs::path(request.subject) / "package.xml";
    expectReadable(request, descriptor);
    Answer answer;
    auto& fields = answer.fields;
    const Outcome outcome =
        run(request.verbose,
            [&]
            {
                const auto systems = systemsOf(descriptor);
                fields["model"] = ValidateQOR::getImageModel(request.subject);
                fields["version"] =
                    ValidateQOR::getImageVersion(request.subject);
                fields["systems"] = systems;
                fields["expectedDigest"] = ValidateQOR::getStrFromPkgXML(
                    descriptor, SHA256_COMPONENT, "hash");
                return fields["model"] != "" || fields["version"] != "" ||
                       fields["expectedDigest"] != "";
            });
    if (!outcome.passed)
    {
        return answerFrom(outcome);
    }
    answer.reason = fields["systems"].size() == MAX_SYSTEMS
                        ? "only the first systems are listed"
                        : "";
    return answer;
}

Answer digest(const Request& request)
{
    expectReadable(request, request.subject);
    PackageContents contents;
    std::string text;
    const Outcome outcome =
        run(request.verbose,
            [&]
            {
                if (fs::is_directory(request.subject))
                {
                    contents.addPayload(request.subject);
                    text = ValidateQOR::getSHAStrFromImage(request.subject);
                }
                else
                {
                    text = calculateFileSHA(request.subject);
                }
                // Zeros stand for a file that could not be read whole.
                return text.find_first_not_of('0') != std::string::npos;
            });
    // A directory's digest covers only what could be read.
    if (!outcome.passed || outcome.refusal.refused)
    {
        return unchecked("it cannot be digested: " + outcome.refusal.reason());
    }
    Answer answer(Verdict::accepted, contents.remark());
    answer.fields["digest"] = text;
    return answer;
}

Answer verifyImage(const Request& request)
{
    const fs::path directory = request.directory;
    const fs::path signature = directory / "image-ktb.sig";
    for (const fs::path& path :
         {fs::path(request.subject), directory / "image-ktb", signature})
    {
        expectReadable(request, path);
    }
    const bool isOlder = fs::is_regular_file(signature) &&
                         fs::file_size(signature) > SIGNATURE_FILE_MAX_SIZE;
    if (isOlder && request.strict)
    {
        return refused(OLDER_FORMAT);
    }
    for (const fs::path& path :
         {fs::path(request.subject), directory / "image-ktb"})
    {
        if (const std::string objection = sizeObjection(request, path);
            !objection.empty())
        {
            return refused(objection);
        }
    }
    Answer answer =
        answerFrom(run(request.verbose,
                       [&]
                       {
                           return ValidateQOR::verifyManifestAndSignature(
                                      request.subject, request.directory) == 0;
                       }));
    if (answer.verdict == Verdict::accepted)
    {
        answer.reason =
            isOlder ? std::string("NOT verified: ") + OLDER_FORMAT : "";
        answer.isVerified = !isOlder;
    }
    else if (std::ranges::any_of(answer.refusal.details,
                                 [](const Detail& detail)
                                 { return detail.name == "exceptionType"; }))
    {
        // Only the call throws; the log does not tell why.
        answer.verdict = Verdict::unchecked;
        answer.reason += hasOwner(SECURITY_SERVICE)
                             ? ": it answered with an error, or not in time"
                             : ": it did not answer: nothing owns " +
                                   std::string(SECURITY_SERVICE);
    }
    return answer;
}

Answer verifyPayload(const Request& request)
{
    expectReadable(request, request.subject);
    expectReadable(request, ROOT_CA_FILE);
    if (const std::string objection = sizeObjection(request, request.subject);
        !objection.empty())
    {
        return refused(objection);
    }
    Answer answer = answerFrom(run(
        request.verbose,
        [&]
        {
            return (!request.strict || isMetadataGood(request.subject)) &&
                   ValidateQOR::validateCertChainForPayload(request.subject);
        }));
    if (answer.verdict == Verdict::accepted)
    {
        const std::string subject = findChainSubject(request.subject);
        answer.reason = "signed by " + subject;
        answer.fields["signer"] = {{"subject", subject}};
        answer.isVerified = true;
    }
    return answer;
}

Answer purpose(const Request& request)
{
    using sdbusplus::common::xyz::openbmc_project::software::details::
        mappingVersionVersionPurpose;
    expectReadable(request, fs::path(request.subject) / "package.xml");
    auto value = ValidateQOR::VersionPurpose::Unknown;
    Outcome outcome =
        run(request.verbose,
            [&]
            {
                value = ValidateQOR::getImagePurpose(request.subject);
                return value != ValidateQOR::VersionPurpose::Unknown;
            });
    // The inventory manager may also answer that it does not know.
    outcome.passed = outcome.passed || outcome.refusal.exception.empty();
    Answer answer = answerFrom(outcome, Verdict::refused);
    if (outcome.passed)
    {
        answer.fields["purpose"] = shortName(
            mappingVersionVersionPurpose.at(static_cast<std::size_t>(value))
                .second);
    }
    return answer;
}

Answer addToInventory(const Request& request)
{
    return inventoryAnswer(request,
                           [&]
                           {
                               return ValidateQOR::registerSWInv(
                                          request.subject, request.detail1,
                                          request.detail2, request.purpose,
                                          request.releaseType) == 1;
                           });
}

Answer removeFromInventory(const Request& request)
{
    return inventoryAnswer(
        request,
        [&] { return ValidateQOR::deRegisterSWInv(request.subject) == 1; });
}

Answer inventoryModel(const Request& request)
{
    std::string model;
    Outcome outcome =
        run(request.verbose,
            [&]
            {
                model = ValidateQOR::getInventoryModel(request.subject);
                return !model.empty();
            });
    // An object may also have an empty model.
    outcome.passed = outcome.passed || !outcome.refusal.refused;
    Answer answer = answerFrom(outcome, Verdict::refused);
    if (outcome.passed)
    {
        answer.fields["model"] = model;
    }
    return answer;
}

} // namespace velmora::front
