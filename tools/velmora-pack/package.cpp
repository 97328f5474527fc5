#include "common/archive.hpp"
#include "common/progress.hpp"
#include "inspect.hpp"
#include "making.hpp"
#include "openpgp.hpp"
#include "openssl.hpp"

#include <fcntl.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <optional>
#include <set>

namespace fs = std::filesystem;

namespace pack
{
namespace
{

constexpr std::string_view DESCRIPTOR_NAME = "package.xml";
constexpr std::string_view DESCRIPTOR_SIGNATURE_NAME = "package.xml.sign";
constexpr std::string_view PAYLOAD_PREFIX = "payload/";
constexpr std::size_t LONGEST_FILE_NAME = 255;
constexpr std::size_t MOST_MEMBERS = 10000;
/** A small archive can unpack to a great deal. */
constexpr std::uint64_t MOST_UNPACKED = std::uint64_t{8} << 30;

/** Digests of the payload's files under their names, in byte order. */
using FileDigests = std::map<std::string, std::string>;

std::string compositeOf(const FileDigests& files)
{
    Digest composite(EVP_sha256());
    for (const auto& [name, digest] : files)
    {
        composite.update(bytesOf(digest));
    }
    return hex(composite.finish());
}

/** The order of the names is part of the digest, so a name must be the same
 *  after extraction, whatever the locale of the machine.
 *
 *  @return why it may not be, or empty */
std::string objectionTo(std::string_view name)
{
    // The extractor drops a version number such as ";1".
    const std::size_t last = name.find_last_not_of("0123456789");
    return !std::ranges::all_of(name,
                                [](char c) { return c >= ' ' && c <= '~'; })
               ? "has a name with characters other than printable ASCII"
           : name.find('\\') != std::string_view::npos
               ? "has a name with a backslash, which extractors take for "
                 "different things"
           : name.size() > LONGEST_FILE_NAME
               ? "has a name longer than 255 bytes"
           : last != std::string_view::npos && name[last] == ';'
               ? "has a name that ends with a semicolon and a number, which "
                 "extraction removes"
               : "";
}

/** @return in the order of their names */
std::vector<fs::path> payloadFiles(const fs::path& payload)
{
    std::vector<fs::path> files{payload};
    if (fs::is_directory(payload))
    {
        files.assign(fs::directory_iterator(payload), {});
    }
    if (files.empty())
    {
        throw Error(payload.string(), "holds no file");
    }
    if (files.size() > MOST_MEMBERS - 2)
    {
        throw Error(payload.string(), "holds too many files");
    }
    std::ranges::sort(files, {}, &fs::path::native);
    for (const fs::path& file : files)
    {
        const std::string objection = objectionTo(file.filename().string());
        if (!objection.empty())
        {
            throw Error(file.string(), objection);
        }
    }
    return files;
}

FileDigests digestFiles(const fs::path& payload,
                        const std::vector<fs::path>& files)
{
    FileDigests digests;
    std::uint64_t size = 0;
    for (const fs::path& file : files)
    {
        size += Source(file).size();
    }
    if (size > MOST_UNPACKED)
    {
        throw Error(payload.string(), "has more than 8 GiB");
    }
    const tools::Progress progress(size);
    for (const fs::path& file : files)
    {
        const Source source(file);
        expectNoPrivateKey(source);
        digests[file.filename().string()] =
            digestText(source, source.size(), EVP_sha256());
    }
    if (size == 0)
    {
        throw Error(payload.string(), "is empty, but for names");
    }
    return digests;
}

struct Contents
{
    Json fields{{"members", Json::array()}};
    /** Without regard to capitals. */
    std::set<std::string> names;
    std::optional<Buffer> descriptor;
    std::optional<Buffer> signature;
    FileDigests payload;
    std::uint64_t payloadSize = 0;
    /** Whether all of the payload could be read. */
    bool isWhole = true;
};

/** Whether the payload's digest covers it. */
bool isPayloadFile(const tools::ArchiveMember& member)
{
    return member.name.starts_with(PAYLOAD_PREFIX) &&
           member.name.find('/', PAYLOAD_PREFIX.size()) == std::string::npos &&
           member.type == fs::file_type::regular;
}

/** What the extractor would take otherwise than it stands there, or not at
 *  all; that the digest of the payload does not cover; or that is odd. */
void remarkOn(Contents& contents, Remarks& remarks,
              const tools::ArchiveMember& member)
{
    const std::string& name = member.name;
    const auto remark = [&](const std::string& what)
    { remarks.push_back("member " + name + " " + what); };
    const std::string objection =
        objectionTo(fs::path(name).filename().string());
    if (!objection.empty())
    {
        remark(objection);
    }
    std::string folded = name;
    std::ranges::transform(folded, folded.begin(), [](unsigned char c)
                           { return static_cast<char>(std::tolower(c)); });
    if (!contents.names.insert(folded).second)
    {
        remark("is there twice, but for capitals");
    }
    if (member.compression != "stored" && member.compression != "deflated")
    {
        remark("is compressed with " + member.compression +
               ", which not every extractor can read");
    }
    if (name == DESCRIPTOR_NAME || name == DESCRIPTOR_SIGNATURE_NAME)
    {
        if (member.type != fs::file_type::regular)
        {
            remark("is not a regular file");
        }
    }
    else if (name != PAYLOAD_PREFIX && !isPayloadFile(member))
    {
        remark(name.starts_with(PAYLOAD_PREFIX)
                   ? "is not covered by the payload's digest"
                   : "is not part of a package");
    }
}

void readMember(Contents& contents, Remarks& remarks,
                const tools::Archive& archive, std::size_t index)
{
    const tools::ArchiveMember& member = archive.members()[index];
    std::optional<Buffer>* const kept =
        member.name == DESCRIPTOR_NAME             ? &contents.descriptor
        : member.name == DESCRIPTOR_SIGNATURE_NAME ? &contents.signature
                                                   : nullptr;
    Buffer content;
    Digest digest(EVP_sha256());
    const std::string problem = archive.read(index,
                                             [&](Bytes piece)
                                             {
                                                 digest.update(piece);
                                                 if (kept != nullptr)
                                                 {
                                                     append(content, piece);
                                                 }
                                             });
    Json& fields = contents.fields["members"].emplace_back(
        Json{{"name", member.name},
             {"size", member.size},
             {"compression", member.compression}});
    const bool isPayload = isPayloadFile(member);
    if (!problem.empty())
    {
        remarks.push_back("member " + member.name +
                          " cannot be read: " + problem);
        contents.isWhole = contents.isWhole && !isPayload;
        return;
    }
    const std::string text = hex(digest.finish());
    fields["sha256"] = text;
    if (kept != nullptr)
    {
        *kept = std::move(content);
    }
    if (isPayload)
    {
        contents.payload.insert_or_assign(
            member.name.substr(PAYLOAD_PREFIX.size()), text);
        contents.payloadSize += member.size;
    }
}

/** With the answer to whether it states the payload's digest. */
void describePackedDescriptor(Json& fields, Bytes descriptor, Remarks& remarks)
{
    try
    {
        const Json described = describeDescriptor(
            Source(descriptor, std::string(DESCRIPTOR_NAME)), remarks);
        fields["descriptor"] = described;
        if (!described.contains("hash") || !fields.contains("payloadDigest"))
        {
            return;
        }
        const bool matches = described["hash"] == fields["payloadDigest"];
        fields["payloadDigestMatches"] = matches;
        if (!matches)
        {
            remarks.emplace_back(
                "the payload's digest is not the one that the descriptor "
                "states");
        }
    }
    catch (const Error& error)
    {
        remarks.emplace_back(error.what());
    }
}

/** Says what only all members together tell. */
void describeWhole(Contents& contents, Remarks& remarks)
{
    Json& fields = contents.fields;
    if (contents.isWhole)
    {
        fields["payloadDigest"] = compositeOf(contents.payload);
        if (contents.payloadSize == 0)
        {
            remarks.emplace_back("the payload is empty");
        }
    }
    for (const std::string_view name :
         {DESCRIPTOR_NAME, DESCRIPTOR_SIGNATURE_NAME})
    {
        if (!contents.names.contains(std::string(name)))
        {
            remarks.push_back("there is no " + std::string(name));
        }
    }
    if (contents.descriptor)
    {
        describePackedDescriptor(fields, *contents.descriptor, remarks);
    }
    if (contents.signature)
    {
        fields["signatures"] = describeSignatures(*contents.signature, remarks);
    }
}

tools::Archive archiveOf(const Source& source)
{
    return tools::Archive(
        FileDescriptor(fcntl(source.fileDescriptor(), F_DUPFD_CLOEXEC, 0)),
        source.name());
}

/** @throws Error when the archive would cost too much to look through */
Contents readContents(const Source& source, Remarks& remarks)
{
    const tools::Archive archive = archiveOf(source);
    if (archive.members().size() > MOST_MEMBERS)
    {
        throw Error(source.name(), "has more than 10000 members");
    }
    if (archive.totalSize() > MOST_UNPACKED)
    {
        throw Error(source.name(), "unpacks to more than 8 GiB");
    }
    Contents contents;
    remarks.insert(remarks.end(), archive.oddities().begin(),
                   archive.oddities().end());
    const tools::Progress progress(archive.totalSize());
    for (std::size_t i = 0; i < archive.members().size(); ++i)
    {
        const tools::ArchiveMember& member = archive.members()[i];
        remarkOn(contents, remarks, member);
        if ((member.name == DESCRIPTOR_NAME ||
             member.name == DESCRIPTOR_SIGNATURE_NAME) &&
            member.size > LARGEST_FILE_IN_MEMORY)
        {
            throw Error(source.name(), "holds too large a " + member.name);
        }
        readMember(contents, remarks, archive, i);
    }
    describeWhole(contents, remarks);
    return contents;
}

/** What is to be the descriptor's signature. */
Buffer signatureFor(const Options& options, Bytes descriptor)
{
    if (options.signature.empty())
    {
        return signDetached(options.gpgHome, options.keys, descriptor);
    }
    const Source source(options.signature);
    Remarks ignored;
    static_cast<void>(describeSignature(source, ignored));
    return source.readAll();
}

/** Signs the descriptor and makes the package; or writes the descriptor, if
 *  nothing is to be signed.
 *
 *  @param older signatures that stand in front of the new one
 *  @param payload what the package holds beside descriptor and signature
 *  @param what for the report */
void writePackage(const Options& options, Bytes descriptor, const Buffer& older,
                  const std::vector<tools::NewMember>& payload,
                  const std::string& what)
{
    if (!options.toBeSigned.empty())
    {
        writeFile(options.toBeSigned, options.force, Source(descriptor));
        report(options.toBeSigned, "descriptor to be signed");
        return;
    }
    const Buffer added = signatureFor(options, descriptor);
    Buffer signature = older;
    append(signature, added);
    std::vector<tools::NewMember> members{
        {std::string(DESCRIPTOR_NAME), textOf(descriptor)},
        {std::string(DESCRIPTOR_SIGNATURE_NAME), textOf(signature)}};
    members.insert(members.end(), payload.begin(), payload.end());
    const Output output(options.output, options.force);
    tools::writeArchive(output.path(), options.output,
                        sourceDateEpoch().value_or(0), members);
    Remarks remarks;
    const Contents made = readContents(output.readBack(), remarks);
    if (!remarks.empty())
    {
        throw Error(options.output.string(), "is not made: " + remarks.front());
    }
    if (!made.descriptor || made.signature != signature ||
        !std::ranges::equal(*made.descriptor, descriptor))
    {
        throw Error(options.output.string(), "does not hold what was packed");
    }
    if (!older.empty())
    {
        // The signatures that are there must not vouch for it.
        checkSignatures(options.gpgHome, {.anchor = {}, .days = 0},
                        options.keys, descriptor, added);
    }
    checkSignatures(options.gpgHome, options.trust, options.keys, descriptor,
                    signature);
    output.renameToTarget();
    report(options.output, "package" + what + ", signed and checked");
}

/** Says what is signed again, and who signed before.
 *
 *  @param fields the descriptor's
 *  @throws Error when a key that is at hand says that it did not */
void reportSigners(const Options& options, const Json& fields, Bytes descriptor,
                   Bytes signatures)
{
    for (const tools::SignatureInfo& info : tools::signaturesOf(
             options.gpgHome, textOf(descriptor), textOf(signatures)))
    {
        if (info.status == GPG_ERR_BAD_SIGNATURE)
        {
            throw Error(options.input.string(),
                        "is not signed again: " + info.problem + ", key " +
                            info.name());
        }
        const bool isGood = info.status == GPG_ERR_NO_ERROR;
        report(options.made(),
               "model " + std::string(fields["componentID"]) + ", version " +
                   std::string(fields["vendorVersion"]) +
                   ", was signed before by " + info.name() + " on " +
                   tools::dayText(info.created) +
                   (isGood ? "" : ", not checked: " + info.problem));
    }
}

} // namespace

void makePackage(const Options& options)
{
    const std::vector<fs::path> files = payloadFiles(options.input);
    options.checkOutput(files);
    const Buffer descriptor = writeDescriptor(
        options, compositeOf(digestFiles(options.input, files)));
    std::vector<tools::NewMember> members;
    members.reserve(files.size());
    for (const fs::path& file : files)
    {
        members.push_back(
            {std::string(PAYLOAD_PREFIX) + file.filename().string(), {}, file});
    }
    writePackage(options, descriptor, {}, members,
                 " with " + std::to_string(files.size()) + " payload file" +
                     (files.size() == 1 ? "" : "s"));
}

void resignPackage(const Options& options)
{
    const Source file(options.input);
    options.checkOutput();
    Remarks remarks;
    const Contents before = readContents(file, remarks);
    // Without one of both there is a remark.
    if (!remarks.empty() || !before.descriptor || !before.signature)
    {
        throw Error(file.name(), "is not signed again: " + remarks.at(0));
    }
    reportSigners(options, before.fields["descriptor"], *before.descriptor,
                  *before.signature);
    const tools::Archive archive = archiveOf(file);
    std::vector<tools::NewMember> members;
    for (std::size_t i = 0; i < archive.members().size(); ++i)
    {
        if (isPayloadFile(archive.members()[i]))
        {
            members.push_back({archive.members()[i].name, {}, {}, &archive, i});
        }
    }
    writePackage(options, *before.descriptor,
                 options.isAdded ? *before.signature : Buffer(), members,
                 options.isAdded ? " with a further signature" : "");
}

Json describePackage(const Source& file, Remarks& remarks)
{
    return readContents(file, remarks).fields;
}

} // namespace pack
