#include "commands.hpp"

#include "common/error.hpp"
#include "common/files.hpp"
#include "common/progress.hpp"
#include "common/purposes.hpp"
#include "package_contents.hpp"
#include "run.hpp"
#include "signer.hpp"

#include <fcntl.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <span>
#include <stdexcept>
#include <string_view>

namespace fs = std::filesystem;

namespace velmora::front
{

namespace
{

constexpr const char* SHA256_COMPONENT =
    "//SoftwareComponent[@hashAlgorithm=\"SHA256\"]";
constexpr const char* ROOT_CA_FILE =
    "/var/run/obmcupdate/OpenBMCSecureBootRootCA.pem";
/** The library's cause for a package that is for other systems. */
constexpr std::string_view OTHER_SYSTEM = "no listed system is this one";
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
/** A larger image-ktb.sig, in bytes, has the older format. */
constexpr std::uintmax_t SIGNATURE_FILE_MAX_SIZE = 511;
/** Where a signed payload has its metadata, and how much; in bytes. */
constexpr std::streamoff METADATA_FROM_END = 76800 - 24576;
constexpr std::size_t METADATA_SIZE = 512;
/** What a file's end may waste, in bytes. */
constexpr std::uint64_t BLOCK_SIZE = 4096;
/** A good package has one. */
constexpr std::size_t MAX_DIRECTORIES = 1000;
/** Of a text from a descriptor, in bytes. */
constexpr std::size_t MAX_SHOWN = 512;

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

} // namespace

std::string adviceOnBus(const std::string& lookAt)
{
    sd_bus* bus = nullptr;
    const bool isThere = sd_bus_open_system(&bus) >= 0;
    const tools::Handle<sd_bus, sd_bus_flush_close_unref> owner(bus);
    return isThere ? "look at: " + lookAt
                   : "there is no system bus; away from a BMC, run this inside "
                     "bmc-sim";
}

namespace
{

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
    const std::string lookAt = refusal.detail("lookAt");
    Answer answer{lookAt.empty() ? Verdict::REFUSED : Verdict::UNCHECKED,
                  refusal.reason(), refusal};
    const std::string exception = refusal.detail("exception");
    const bool isOnBus =
        !exception.empty() || !refusal.detail("exceptionType").empty();
    if (!lookAt.empty() && !isOnBus)
    {
        answer.reason += "; look at: " + lookAt;
    }
    if (!lookAt.empty() && !exception.empty())
    {
        const bool has = hasAnswered(exception);
        answer.verdict = has ? answered : Verdict::UNCHECKED;
        answer.reason =
            refusal.site.text +
            (has ? ": it answered with an error: " : ": it did not answer: ") +
            exception + (has ? "" : "; " + adviceOnBus(lookAt));
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

std::string tooLarge(const Request& request)
{
    return "it has more than " + std::to_string(request.maxSize) + " bytes";
}

/** They take room, too, which no size tells. */
bool hasManyDirectories(const tools::Archive& archive)
{
    std::set<std::string> seen;
    for (const tools::ArchiveMember& member : archive.members())
    {
        std::string path = member.name;
        // The extractor takes it for a slash in archives that were made on
        // some systems.
        std::ranges::replace(path, '\\', '/');
        for (auto end = path.find('/');
             end < path.size() && seen.size() <= MAX_DIRECTORIES;
             end = path.find('/', end + 1))
        {
            seen.insert(path.substr(0, end));
        }
    }
    return seen.size() > MAX_DIRECTORIES;
}

/** What is wrong with an archive before anything of it is unpacked, or empty.
 *  What passes unpacks to just the sizes that it lists. */
std::string objectionTo(const tools::Archive& archive, const Request& request)
{
    if (archive.totalSize() > request.maxSize)
    {
        return tooLarge(request);
    }
    if (hasManyDirectories(archive))
    {
        return "it has more than 1000 directories";
    }
    const tools::Progress progress(archive.totalSize());
    std::string objection;
    if (request.strict)
    {
        objection = archive.oddities().empty() ? contentsOf(archive).objection()
                                               : archive.oddities().front();
    }
    for (std::size_t i = 0; objection.empty() && i < archive.members().size();
         ++i)
    {
        // Stored content does not grow.
        const tools::ArchiveMember& member = archive.members()[i];
        const std::string problem =
            // What is unpacked later could be written through it.
            member.type == fs::file_type::symlink ? "it is a link"
            : member.compression == "stored"
                ? member.problem
                : archive.read(i, [](std::span<const std::byte>) {});
        objection = problem.empty() ? "" : member.name + ": " + problem;
    }
    return objection;
}

std::uintmax_t roomIn(const fs::path& directory)
{
    std::error_code ignored;
    return fs::space(directory, ignored).available;
}

/** What was listed, and is not there as it was; or empty. A signal that ends
 *  the extractor goes unnoticed by the library. Names beyond ASCII may have got
 *  another encoding. */
std::string missingIn(const fs::path& directory, const PackageContents& listed)
{
    for (const auto& [name, size] : listed.files)
    {
        std::error_code missing;
        const bool isAscii =
            std::ranges::all_of(name, [](unsigned char c) { return c < 0x80; });
        if (isAscii && fs::file_size(directory / name, missing) != size)
        {
            return name;
        }
    }
    return {};
}

/** By this program, in bytes. */
std::uint64_t readSoFar()
{
    std::ifstream counts("/proc/self/io");
    std::string name;
    std::uint64_t count = 0;
    counts >> name >> count;
    return count;
}

/** Unpacks under a name of our own: the extractor reads names as patterns.
 *
 *  @param listed gets what the archive lists */
Answer extract(const Request& request, const fs::path& destination,
               PackageContents& listed)
{
    std::optional<tools::Archive> archive;
    try
    {
        const int file = open(request.subject.c_str(), O_RDONLY | O_CLOEXEC);
        archive.emplace(tools::FileDescriptor(file), "the package");
    }
    catch (const tools::Error& e)
    {
        return {Verdict::REFUSED, e.what()};
    }
    const std::string objection = objectionTo(*archive, request);
    if (!objection.empty())
    {
        return {Verdict::REFUSED, objection};
    }
    const std::uintmax_t room = roomIn(destination);
    if (room < archive->totalSize() + archive->members().size() * BLOCK_SIZE)
    {
        throw std::runtime_error("no room is left in " + destination.string());
    }
    listed = contentsOf(*archive);
    const tools::TemporaryDirectory work;
    const fs::path link = work.path() / "package.zip";
    // To the extractor, another file is the standard input.
    std::error_code nameless;
    fs::create_symlink(fs::canonical(request.subject, nameless), link);
    if (nameless)
    {
        throw std::runtime_error("it has no name in the file system: copy it");
    }
    const tools::WatchedProgress progress(
        archive->totalSize(), [&destination, room]
        { return room - std::min(room, roomIn(destination)); });
    const auto unzip = [&] { return ValidateQOR::unZip(link, destination); };
    Answer answer = ask(request, unzip);
    const std::string missing = answer.verdict == Verdict::ACCEPTED
                                    ? missingIn(destination, listed)
                                    : "";
    if (!missing.empty())
    {
        return {Verdict::UNCHECKED,
                missing + ": is not there as it is listed: the extractor was "
                          "ended early, or changes the name"};
    }
    return answer;
}

/** The systems that an unpacked package lists, in one line. */
std::string systemsIn(const fs::path& package)
{
    std::string text;
    for (const std::string& system : systemsOf(package / "package.xml"))
    {
        text += (text.empty() ? "" : " ") + system;
    }
    return text.substr(0, MAX_SHOWN);
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

/** What is wrong with a package that the library accepts, or empty. */
std::string objectionTo(const fs::path& package, const Request& request)
{
    if (request.strict && systemsOf(package / "package.xml").empty())
    {
        return "its descriptor names no Model";
    }
    if (request.minVersion.empty())
    {
        return {};
    }
    const std::string version = ValidateQOR::getImageVersion(package);
    return version.empty() ? "its descriptor states no version"
           : strverscmp(version.c_str(), request.minVersion.c_str()) < 0
               ? "its version " + version + " is lower than " +
                     request.minVersion
               : "";
}

/** @param listed what the archive listed; null where there was none */
Answer validateDirectory(const Request& request, const fs::path& package,
                         const PackageContents* listed)
{
    const PackageContents contents = contentsOf(package, false);
    std::string objection = !request.strict ? "" : contents.objection();
    if (objection.empty() && request.strict)
    {
        const fs::path signature = package / "package.xml.sign";
        objection = contents.size() > request.maxSize ? tooLarge(request)
                    : fs::exists(signature) && !tools::holdsOnlySignatures(
                                                   tools::readFile(signature))
                        ? "package.xml.sign is not just binary OpenPGP "
                          "signatures"
                    : listed != nullptr && listed->files != contents.files
                        ? "its archive lists something else than it unpacks to"
                        : "";
    }
    if (!objection.empty())
    {
        return {Verdict::REFUSED, objection};
    }
    const tools::WatchedProgress progress(contents.size(),
                                          [before = readSoFar()]
                                          { return readSoFar() - before; });
    const auto judge = [&]
    {
        try
        {
            const bool isValid = ValidateQOR::validateExtractedQOR(package);
            objection = isValid ? objectionTo(package, request) : "";
            return isValid;
        }
        catch (const std::logic_error&)
        {
            objection = "a systemID of the descriptor is no number, or too "
                        "large: " +
                        systemsIn(package);
            return false;
        }
    };
    Answer answer = ask(request, judge);
    if (!objection.empty())
    {
        return {Verdict::REFUSED, objection};
    }
    answer.isVerified = answer.verdict == Verdict::ACCEPTED;
    const std::string& source = answer.refusal.site.file;
    if (answer.refusal.site.text == OTHER_SYSTEM)
    {
        answer.reason = "made for " + systemsIn(package) +
                        ", this machine is " +
                        answer.refusal.detail("thisSystem");
    }
    if (answer.isVerified || source.starts_with("descriptor_signature"))
    {
        addSigner(answer, package);
    }
    // What lies in the archive only, the extractor has passed over.
    const PackageContents& all =
        listed != nullptr && !listed->uncovered.empty() ? *listed : contents;
    if (answer.isVerified && !all.uncovered.empty())
    {
        answer.reason += (answer.reason.empty() ? "" : "; ") + all.remark();
        answer.fields["notCovered"] = all.uncovered;
    }
    return answer;
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
    PackageContents ignored;
    return extract(request, fs::absolute(request.directory), ignored);
}

Answer validate(const Request& request)
{
    expectReadable(request, request.subject);
    if (fs::is_directory(request.subject))
    {
        return validateDirectory(request, request.subject, nullptr);
    }
    const tools::TemporaryDirectory unpacked;
    PackageContents listed;
    const Answer answer = extract(request, unpacked.path(), listed);
    return answer.verdict == Verdict::ACCEPTED
               ? validateDirectory(request, unpacked.path(), &listed)
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
        fields["expectedDigest"] =
            ValidateQOR::getStrFromPkgXML(descriptor, SHA256_COMPONENT, "hash");
        return fields["model"] != "" || fields["version"] != "" ||
               fields["expectedDigest"] != "";
    };
    Answer answer = ask(request, read);
    if (answer.verdict == Verdict::ACCEPTED)
    {
        fields["systems"] = systemsOf(descriptor);
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
    if (isOlder && request.strict)
    {
        return {Verdict::REFUSED, OLDER_FORMAT};
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
    else if (!answer.refusal.detail("exceptionType").empty())
    {
        // Only the call throws; the log does not tell why.
        answer.verdict = Verdict::UNCHECKED;
        answer.reason += ": it answered with an error, or not at all; " +
                         adviceOnBus(answer.refusal.detail("lookAt"));
    }
    return answer;
}

Answer verifyPayload(const Request& request)
{
    expectReadable(request, request.subject);
    expectReadable(request, ROOT_CA_FILE);
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
    expectReadable(request, fs::path(request.subject) / "package.xml");
    const auto read = [&]
    {
        const auto value = ValidateQOR::getImagePurpose(request.subject);
        return std::string(
            tools::VERSION_PURPOSES.names.at(static_cast<std::size_t>(value)));
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
