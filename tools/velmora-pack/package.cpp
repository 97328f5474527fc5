#include "common/archive.hpp"
#include "common/progress.hpp"
#include "descriptor.hpp"
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

/** The extractor drops a version number such as ";1" from a name. */
bool hasVersionNumber(std::string_view name)
{
    const std::size_t last = name.find_last_not_of("0123456789");
    return last != std::string_view::npos && name[last] == ';';
}

/** The order of the names is part of the digest, so a name must be the same
 *  after extraction, whatever the locale of the machine. */
void expectPortable(const fs::path& file)
{
    const std::string name = file.filename().string();
    const bool isPlain =
        std::ranges::all_of(name, [](char c) { return c >= ' ' && c <= '~'; });
    if (!isPlain)
    {
        throw Error(file.string(),
                    "has a name with characters other than printable ASCII");
    }
    if (name.find('\\') != std::string::npos)
    {
        throw Error(file.string(), "has a name with a backslash, which "
                                   "extractors take for different things");
    }
    if (name.size() > LONGEST_FILE_NAME)
    {
        throw Error(file.string(), "has a name longer than 255 bytes");
    }
    if (hasVersionNumber(name))
    {
        throw Error(file.string(),
                    "has a name that ends with a semicolon and a number, "
                    "which extraction removes");
    }
}

/** An output there would be part of the payload the next time. */
void expectOutside(const fs::path& made, const fs::path& payload)
{
    std::error_code missing;
    if (fs::equivalent(fs::absolute(made).parent_path(), payload, missing))
    {
        throw Error(made.string(), "lies in the payload's directory");
    }
}

std::vector<fs::path> payloadFiles(const fs::path& payload)
{
    if (!fs::is_directory(payload))
    {
        expectPortable(payload);
        return {payload};
    }
    std::vector<fs::path> files;
    for (const fs::directory_entry& entry : fs::directory_iterator(payload))
    {
        if (!fs::is_regular_file(entry.path()))
        {
            throw Error(entry.path().string(),
                        "is not a regular file, and the payload's digest "
                        "would not cover it");
        }
        expectPortable(entry.path());
        files.push_back(entry.path());
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
    return files;
}

FileDigests digestFiles(const std::vector<fs::path>& files)
{
    FileDigests digests;
    std::uint64_t size = 0;
    for (const fs::path& file : files)
    {
        size += Source(file).size();
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
        throw Error(files.front().string(), "is empty, and so is the payload");
    }
    return digests;
}

struct Contents
{
    /** Name, size, compression and digest of each. */
    Json members = Json::array();
    /** Without regard to capitals. */
    std::set<std::string> names;
    std::optional<Buffer> descriptor;
    std::optional<Buffer> signature;
    FileDigests payload;
    std::uint64_t payloadSize = 0;
    /** Whether all of the payload could be read. */
    bool isWhole = true;
    Remarks remarks;
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
void remarkOn(Contents& contents, const tools::ArchiveMember& member)
{
    const std::string& name = member.name;
    const auto remark = [&](const std::string& what)
    { contents.remarks.push_back("member " + name + " " + what); };
    if (hasVersionNumber(name) ||
        std::ranges::any_of(name, [](unsigned char c)
                            { return std::iscntrl(c) != 0; }))
    {
        remark("is extracted under another name");
    }
    if (name.find('\\') != std::string::npos)
    {
        remark("has a backslash, which extractors take for different things");
    }
    std::string folded = name;
    std::ranges::transform(folded, folded.begin(), [](unsigned char c)
                           { return static_cast<char>(std::tolower(c)); });
    if (!contents.names.insert(folded).second)
    {
        remark("is there more than once (capitals do not count)");
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

void readMember(Contents& contents, const tools::Archive& archive,
                std::size_t index)
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
    Json& fields = contents.members.emplace_back(
        Json{{"name", member.name},
             {"size", member.size},
             {"compression", member.compression}});
    const bool isPayload = isPayloadFile(member);
    if (!problem.empty())
    {
        contents.remarks.push_back("member " + member.name +
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

tools::Archive archiveOf(const Source& source)
{
    return tools::Archive(
        FileDescriptor(fcntl(source.fileDescriptor(), F_DUPFD_CLOEXEC, 0)),
        source.name());
}

/** @throws Error when the archive would cost too much to look through */
Contents readContents(const Source& source)
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
    contents.remarks = archive.oddities();
    const tools::Progress progress(archive.totalSize());
    for (std::size_t i = 0; i < archive.members().size(); ++i)
    {
        const tools::ArchiveMember& member = archive.members()[i];
        remarkOn(contents, member);
        if ((member.name == DESCRIPTOR_NAME ||
             member.name == DESCRIPTOR_SIGNATURE_NAME) &&
            member.size > LARGEST_FILE_IN_MEMORY)
        {
            throw Error(source.name(), "holds too large a " + member.name);
        }
        readMember(contents, archive, i);
    }
    return contents;
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

Json fieldsOf(const Contents& contents, Remarks& remarks)
{
    Json fields{{"members", contents.members}};
    remarks.insert(remarks.end(), contents.remarks.begin(),
                   contents.remarks.end());
    if (contents.isWhole)
    {
        fields["payloadDigest"] = compositeOf(contents.payload);
    }
    if (contents.isWhole && contents.payloadSize == 0)
    {
        remarks.emplace_back("the payload is empty");
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
    return fields;
}

/** What is to be the descriptor's signature. */
Buffer signatureFor(const PackageOptions& options, Bytes descriptor)
{
    if (options.signing.signature.empty())
    {
        return signDetached(options.gpgHome, options.signing.keys, descriptor);
    }
    const Source source(options.signing.signature);
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
void writePackage(const PackageOptions& options, Bytes descriptor,
                  const Buffer& older,
                  const std::vector<tools::NewMember>& payload,
                  const std::string& what)
{
    const Signing& signing = options.signing;
    if (!signing.toBeSigned.empty())
    {
        writeFile(signing.toBeSigned, signing.force, Source(descriptor));
        report(signing.toBeSigned, "descriptor to be signed");
        return;
    }
    const Buffer added = signatureFor(options, descriptor);
    Buffer signature = older;
    append(signature, added);
    std::vector<tools::NewMember> members{
        {std::string(DESCRIPTOR_NAME), textOf(descriptor)},
        {std::string(DESCRIPTOR_SIGNATURE_NAME), textOf(signature)}};
    members.insert(members.end(), payload.begin(), payload.end());
    const Output output(signing.output, signing.force);
    tools::writeArchive(output.path(), signing.output,
                        sourceDateEpoch().value_or(0), members);
    const Contents made = readContents(output.readBack());
    Remarks remarks;
    static_cast<void>(fieldsOf(made, remarks));
    if (!remarks.empty())
    {
        throw Error(signing.output.string(), "is not made: " + remarks.front());
    }
    if (!made.descriptor || made.signature != signature ||
        !std::ranges::equal(*made.descriptor, descriptor))
    {
        throw Error(signing.output.string(), "does not hold what was packed");
    }
    if (!older.empty())
    {
        // The signatures that are there must not vouch for it.
        checkSignatures(options.gpgHome, {.anchor = {}, .days = 0},
                        signing.keys, descriptor, added);
    }
    checkSignatures(options.gpgHome, options.trust, signing.keys, descriptor,
                    signature);
    output.commit();
    report(signing.output, "package" + what + ", signed and checked");
}

/** Says what is signed again, and who signed before.
 *
 *  @throws Error when a key that is at hand says that it did not */
void reportSigners(const PackageOptions& options, const Json& fields,
                   Bytes descriptor, Bytes signatures)
{
    const std::string model = fields["descriptor"]["componentID"];
    const std::string version = fields["descriptor"]["vendorVersion"];
    for (const tools::SignatureInfo& info : tools::signaturesOf(
             options.gpgHome, textOf(descriptor), textOf(signatures)))
    {
        if (info.status == GPG_ERR_BAD_SIGNATURE)
        {
            throw Error(options.payload.string(),
                        "is not signed again: " + info.problem + ", key " +
                            info.name());
        }
        const bool isGood = info.status == GPG_ERR_NO_ERROR;
        report(options.signing.made(),
               "model " + model + ", version " + version +
                   ", was signed before by " + info.name() + " on " +
                   tools::dayText(info.created) +
                   (isGood ? "" : ", not checked: " + info.problem));
    }
}

} // namespace

void makePackage(const PackageOptions& options)
{
    const std::vector<fs::path> files = payloadFiles(options.payload);
    expectOutside(options.signing.made(), options.payload);
    std::vector<fs::path> inputs(files);
    inputs.push_back(options.trust.anchor);
    options.signing.expectNewOutput(std::move(inputs));
    const FileDigests digests = digestFiles(files);
    const Buffer descriptor =
        writeDescriptor({options.model, options.version, compositeOf(digests),
                         options.systemIds});
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

void resignPackage(const PackageOptions& options, bool isAdded)
{
    const Source file(options.payload);
    options.signing.expectNewOutput({options.payload, options.trust.anchor});
    const Contents before = readContents(file);
    Remarks remarks;
    const Json fields = fieldsOf(before, remarks);
    // Without one of both there is a remark.
    if (!remarks.empty() || !before.descriptor || !before.signature)
    {
        throw Error(file.name(), "is not signed again: " + remarks.at(0));
    }
    reportSigners(options, fields, *before.descriptor, *before.signature);
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
                 isAdded ? *before.signature : Buffer(), members,
                 isAdded ? " with a further signature" : "");
}

Json describePackage(const Source& file, Remarks& remarks)
{
    return fieldsOf(readContents(file), remarks);
}

} // namespace pack
