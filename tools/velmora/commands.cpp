#include "commands.hpp"

#include "common/files.hpp"
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
/** Errors of the bus itself: nothing has answered. */
constexpr std::array<std::string_view, 6> UNANSWERED{
    "org.freedesktop.DBus.Error.ServiceUnknown",
    "org.freedesktop.DBus.Error.NameHasNoOwner",
    "org.freedesktop.DBus.Error.NoReply",
    "org.freedesktop.DBus.Error.Timeout",
    "org.freedesktop.DBus.Error.Disconnected",
    "System.Error."};
/** Systems that are listed; each costs a reading of the descriptor. */
constexpr std::size_t MAX_SYSTEMS = 64;
/** A larger image-ktb.sig, in bytes, has the older format. */
constexpr std::uintmax_t SIGNATURE_FILE_MAX_SIZE = 511;
/** Where a signed payload has its metadata, and how much; in bytes. */
constexpr std::streamoff METADATA_FROM_END = 76800 - 24576;
constexpr std::size_t METADATA_SIZE = 512;
/** A file system without room for so many bytes is full. */
constexpr off_t ROOM = 65536;
/** The extractor may always write so much into a file, in bytes. */
constexpr std::uint64_t MIN_FILE_LIMIT = 1 << 20;

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
    // In front of the error's name stands the step that failed.
    const auto name = exception.substr(exception.find(' ') + 1);
    return std::ranges::none_of(UNANSWERED, [name](std::string_view error)
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
Answer answerFrom(const Outcome& outcome, Verdict answered = Verdict::UNCHECKED)
{
    const Operation& refusal = outcome.refusal;
    if (outcome.passed)
    {
        return {};
    }
    Answer answer{Verdict::REFUSED, refusal.reason(), refusal};
    if (!refusal.exception.empty())
    {
        const bool has = hasAnswered(refusal.exception);
        answer.verdict = has ? answered : Verdict::UNCHECKED;
        answer.reason =
            refusal.site.text +
            (has ? ": it answered with an error: " : ": it did not answer: ") +
            refusal.exception;
    }
    return answer;
}

Answer ask(const Request& request, const std::function<bool()>& work,
           Verdict answered = Verdict::UNCHECKED)
{
    return answerFrom(run(request.verbose, work), answered);
}

/** Asks the inventory manager.
 *
 *  @param none what the library gives when it has no value. It can also be
 *         the answer; the log tells which. */
Answer askForValue(const Request& request, const char* name,
                   const std::function<std::string()>& read, const char* none)
{
    std::string value;
    const auto work = [&] { return (value = read()) != none; };
    Outcome outcome = run(request.verbose, work);
    outcome.passed = outcome.passed || !outcome.refusal.hasFailed();
    Answer answer = answerFrom(outcome, Verdict::REFUSED);
    if (outcome.passed)
    {
        answer.fields[name] = value;
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

/** Bounds what the extractor may write into one file, while it lives. */
class FileLimit
{
  public:
    explicit FileLimit(std::uint64_t size)
    {
        getrlimit(RLIMIT_FSIZE, &before_);
        rlimit limit = before_;
        limit.rlim_cur = std::min<rlim_t>(
            limit.rlim_cur,
            static_cast<rlim_t>(std::max(size, MIN_FILE_LIMIT) + 1));
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    FileLimit(const FileLimit&) = delete;
    FileLimit& operator=(const FileLimit&) = delete;
    ~FileLimit()
    {
        setrlimit(RLIMIT_FSIZE, &before_);
        std::signal(SIGXFSZ, signalBefore_);
    }

  private:
    rlimit before_{};
    // A write beyond fails then; the signal would end the process.
    void (*signalBefore_)(int) = std::signal(SIGXFSZ, SIG_IGN);
};

/** Unpacks under a name of our own: the extractor reads names as patterns. */
Answer extract(const Request& request, const fs::path& work,
               const fs::path& destination)
{
    const fs::path link = work / "package.zip";
    fs::create_symlink(fs::absolute(request.subject), link);
    const auto unZip = [&]
    { return ValidateQOR::unZip(link, fs::absolute(destination)); };
    Answer answer = ask(request, unZip);
    return answer.verdict == Verdict::REFUSED && isFull(destination)
               ? Answer{Verdict::UNCHECKED,
                        "no room is left in " + destination.string()}
               : answer;
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
           : !contents.uncovered.empty()     ? contents.remark()
           : contents.payloadFiles == 0      ? "its payload is empty"
                                             : "";
}

/** Identifiers that a descriptor lists, as they are written. */
std::vector<std::string> systemsOf(const std::string& descriptor)
{
    std::vector<std::string> systems;
    while (systems.size() < MAX_SYSTEMS)
    {
        const std::string next = "(//Model[@systemID!=\"\"])[" +
                                 std::to_string(systems.size() + 1) + "]";
        std::string system =
            ValidateQOR::getStrFromPkgXML(descriptor, next.c_str(), "systemID");
        if (system.empty())
        {
            break;
        }
        systems.push_back(std::move(system));
    }
    return systems;
}

/** Why a descriptor's identifiers make the library throw. */
std::string systemProblem(const std::string& descriptor)
{
    std::string problem = "no number";
    for (const std::string& system : systemsOf(descriptor))
    {
        try
        {
            static_cast<void>(std::stoi(system, nullptr, 16));
        }
        catch (const std::logic_error& e)
        {
            const bool isNumber =
                dynamic_cast<const std::out_of_range*>(&e) != nullptr;
            problem = (isNumber ? "too large: " : "no number: ") + system;
            break;
        }
    }
    return "a systemID of the descriptor is " + problem;
}

/** Says who has signed, or what is wrong with the signature. */
void addSigner(Answer& answer, const fs::path& package)
{
    const auto signer =
        findSigner(package / "package.xml", package / "package.xml.sign");
    if (!signer)
    {
        return;
    }
    const bool isNamed = !signer->userId.empty();
    answer.reason = answer.isVerified
                        ? "signed by "
                        : answer.refusal.site.text + ": " + signer->problem +
                              (isNamed ? ": " : " ");
    answer.reason += signer->userId + (isNamed ? ", " : "") + signer->name();
    answer.fields["signer"] = {{"fingerprint", signer->fingerprint},
                               {"primary", signer->primary},
                               {"userId", signer->userId}};
}

Answer validateDirectory(const Request& request, const fs::path& package)
{
    const PackageContents contents = contentsOf(package, false);
    std::string objection = objectionTo(contents, request);
    if (!objection.empty())
    {
        return {Verdict::REFUSED, objection};
    }
    const auto judge = [&]
    {
        try
        {
            const bool isValid = ValidateQOR::validateExtractedQOR(package);
            if (isValid && request.strict &&
                systemsOf(package / "package.xml").empty())
            {
                objection = "its descriptor names no Model";
            }
            return isValid;
        }
        catch (const std::logic_error&)
        {
            objection = systemProblem(package / "package.xml");
            return false;
        }
    };
    Answer answer = ask(request, judge);
    if (!objection.empty())
    {
        return {Verdict::REFUSED, objection};
    }
    answer.isVerified = answer.verdict == Verdict::ACCEPTED;
    if (answer.isVerified ||
        answer.refusal.site.file.starts_with("descriptor_signature"))
    {
        addSigner(answer, package);
    }
    if (answer.isVerified && !contents.uncovered.empty())
    {
        answer.reason += "; " + contents.remark();
        answer.fields["notCovered"] = contents.uncovered;
    }
    return answer;
}

/** What a strict check finds wrong with a file, or empty. */
std::string objectionTo(const fs::path& path, const Request& request)
{
    return !request.strict ? ""
           : !fs::is_regular_file(path)
               ? path.filename().string() + " is no regular file"
           : fs::file_size(path) > request.maxSize ? tooLarge(request)
                                                   : "";
}

/** Also where there is none: the library says what is wrong with the file. */
bool isMetadataGood(const std::string& payload)
{
    std::ifstream file(payload, std::ios::binary);
    std::string metadata(METADATA_SIZE, '\0');
    file.seekg(-METADATA_FROM_END, std::ios::end);
    file.read(metadata.data(), METADATA_SIZE);
    return !file || ValidateQOR::extract_meta_data(metadata) == 0;
}

} // namespace

Answer unpack(const Request& request)
{
    expectReadable(request, request.subject);
    if (!fs::is_directory(request.directory))
    {
        return {Verdict::UNCHECKED, request.directory + " is not a directory"};
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
    std::optional<FileLimit> limit;
    if (request.strict)
    {
        limit.emplace(request.maxSize);
    }
    const Answer answer = extract(request, work.path(), unpacked);
    limit.reset();
    if (answer.verdict == Verdict::ACCEPTED)
    {
        return validateDirectory(request, unpacked);
    }
    return request.strict && contentsOf(unpacked, false).size > request.maxSize
               ? Answer{Verdict::REFUSED, tooLarge(request)}
               : answer;
}

Answer info(const Request& request)
{
    const std::string descriptor = fs::path(request.subject) / "package.xml";
    expectReadable(request, descriptor);
    auto fields = nlohmann::ordered_json::object();
    const auto read = [&]
    {
        fields["model"] = ValidateQOR::getImageModel(request.subject);
        fields["version"] = ValidateQOR::getImageVersion(request.subject);
        fields["systems"] = systemsOf(descriptor);
        fields["expectedDigest"] =
            ValidateQOR::getStrFromPkgXML(descriptor, SHA256_COMPONENT, "hash");
        return fields["model"] != "" || fields["version"] != "" ||
               fields["expectedDigest"] != "";
    };
    Answer answer = ask(request, read);
    if (answer.verdict == Verdict::ACCEPTED)
    {
        answer.reason = fields["systems"].size() == MAX_SYSTEMS
                            ? "only the first systems are listed"
                            : "";
        answer.fields = fields;
    }
    return answer;
}

Answer digest(const Request& request)
{
    expectReadable(request, request.subject);
    const bool isDirectory = fs::is_directory(request.subject);
    std::string text;
    const auto read = [&]
    {
        text = isDirectory ? ValidateQOR::getSHAStrFromImage(request.subject)
                           : calculateFileSHA(request.subject);
        // Zeros stand for a file that could not be read whole.
        return text.find_first_not_of('0') != std::string::npos;
    };
    const Outcome outcome = run(request.verbose, read);
    // A directory's digest covers only what could be read.
    if (!outcome.passed || outcome.refusal.hasFailed())
    {
        return {Verdict::UNCHECKED,
                "it cannot be digested: " + outcome.refusal.reason()};
    }
    Answer answer;
    answer.fields["digest"] = text;
    answer.reason =
        isDirectory ? contentsOf(request.subject, true).remark() : "";
    return answer;
}

Answer verifyImage(const Request& request)
{
    const fs::path manifest = fs::path(request.directory) / "image-ktb";
    const fs::path signature = manifest.string() + ".sig";
    for (const fs::path& path :
         {fs::path(request.subject), manifest, signature})
    {
        expectReadable(request, path);
    }
    const bool isOlder = fs::is_regular_file(signature) &&
                         fs::file_size(signature) > SIGNATURE_FILE_MAX_SIZE;
    for (const std::string& objection :
         {std::string(isOlder && request.strict ? OLDER_FORMAT : ""),
          objectionTo(request.subject, request),
          objectionTo(manifest, request)})
    {
        if (!objection.empty())
        {
            return {Verdict::REFUSED, objection};
        }
    }
    const auto verify = [&]
    {
        return ValidateQOR::verifyManifestAndSignature(request.subject,
                                                       request.directory) == 0;
    };
    Answer answer = ask(request, verify);
    if (answer.verdict == Verdict::ACCEPTED)
    {
        answer.isVerified = !isOlder;
        answer.reason =
            isOlder ? std::string("NOT verified: ") + OLDER_FORMAT : "";
    }
    else if (std::ranges::any_of(answer.refusal.details,
                                 [](const Detail& detail)
                                 { return detail.name == "exceptionType"; }))
    {
        // Only the call throws; the log does not tell why.
        answer.verdict = Verdict::UNCHECKED;
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
    const std::string objection = objectionTo(request.subject, request);
    if (!objection.empty())
    {
        return {Verdict::REFUSED, objection};
    }
    const auto verify = [&]
    {
        return (!request.strict || isMetadataGood(request.subject)) &&
               ValidateQOR::validateCertChainForPayload(request.subject);
    };
    Answer answer = ask(request, verify);
    if (answer.verdict == Verdict::ACCEPTED)
    {
        const std::string subject = findChainSubject();
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
    const auto read = [&]
    {
        const auto value = ValidateQOR::getImagePurpose(request.subject);
        return shortName(
            mappingVersionVersionPurpose.at(static_cast<std::size_t>(value))
                .second);
    };
    return askForValue(request, "purpose", read, "Unknown");
}

Answer addToInventory(const Request& request)
{
    const auto add = [&]
    {
        return ValidateQOR::registerSWInv(request.subject, request.detail1,
                                          request.detail2, request.purpose,
                                          request.releaseType) == 1;
    };
    return ask(request, add, Verdict::REFUSED);
}

Answer removeFromInventory(const Request& request)
{
    const auto remove = [&]
    { return ValidateQOR::deRegisterSWInv(request.subject) == 1; };
    return ask(request, remove, Verdict::REFUSED);
}

Answer inventoryModel(const Request& request)
{
    const auto read = [&]
    { return ValidateQOR::getInventoryModel(request.subject); };
    return askForValue(request, "model", read, "");
}

} // namespace velmora::front
