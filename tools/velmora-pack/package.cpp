#include "package.hpp"

#include "descriptor.hpp"
#include "openpgp.hpp"
#include "openssl.hpp"
#include "signature_packet.hpp"

#include <algorithm>
#include <map>
#include <optional>

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

namespace pack
{

namespace
{

constexpr std::string_view payloadPrefix = "payload/";
constexpr std::size_t longestFileName = 255;

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
    const bool plain =
        std::ranges::all_of(name, [](char c) { return c >= ' ' && c <= '~'; });
    if (!plain)
    {
        throw Error(file.string(),
                    "has a name with characters other than printable ASCII");
    }
    if (name.size() > longestFileName)
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
    if (files.size() > mostMembers - 2)
    {
        throw Error(payload.string(), "holds too many files");
    }
    std::ranges::sort(files, {}, &fs::path::native);
    return files;
}

FileDigests digestFiles(const std::vector<fs::path>& files)
{
    FileDigests digests;
    for (const fs::path& file : files)
    {
        const Source source(file);
        expectNoPrivateKey(source);
        digests[file.filename().string()] =
            digestText(source, 0, source.size(), EVP_sha256());
    }
    return digests;
}

struct Member
{
    ZipMember place;
    std::uint64_t size = 0;
    std::string digest;
};

struct Contents
{
    std::vector<Member> members;
    std::optional<Buffer> descriptor;
    std::optional<Buffer> signature;
    FileDigests payload;
    std::vector<std::string> remarks;
};

/** What a member's name makes it; its size and digest are known already. */
void classify(Contents& contents, const Member& member)
{
    std::string_view name = member.place.name;
    if (name == descriptorName || name == descriptorSignatureName)
    {
        const auto count =
            std::ranges::count(contents.members, name, [](const Member& other)
                               { return std::string_view(other.place.name); });
        if (count == 2)
        {
            contents.remarks.push_back("member " + member.place.name +
                                       " is there more than once");
        }
        return;
    }
    if (!name.starts_with(payloadPrefix))
    {
        contents.remarks.push_back("member " + member.place.name +
                                   " is not part of a package");
        return;
    }
    name.remove_prefix(payloadPrefix.size());
    if (name.empty())
    {
        return;
    }
    if (!member.place.regular || name.find('/') != std::string_view::npos)
    {
        contents.remarks.push_back("member " + member.place.name +
                                   " is not covered by the payload's digest");
        return;
    }
    if (!contents.payload.insert_or_assign(std::string(name), member.digest)
             .second)
    {
        contents.remarks.push_back("member " + member.place.name +
                                   " is there more than once");
    }
}

Contents readContents(const Source& source)
{
    Contents contents;
    std::optional<Digest> digest;
    const auto finishMember = [&]
    {
        if (digest)
        {
            contents.members.back().digest = hex(digest->finish());
            classify(contents, contents.members.back());
        }
    };
    readZip(source,
            [&](const ZipMember& place) -> Consumer
            {
                finishMember();
                contents.members.push_back({place, 0, {}});
                digest.emplace(EVP_sha256());
                std::optional<Buffer>* kept = nullptr;
                if (place.name == descriptorName)
                {
                    kept = &contents.descriptor;
                }
                else if (place.name == descriptorSignatureName)
                {
                    kept = &contents.signature;
                }
                if (kept != nullptr)
                {
                    kept->emplace();
                }
                return [&contents, &digest, &source, kept](Bytes piece)
                {
                    Member& member = contents.members.back();
                    member.size += piece.size();
                    digest->update(piece);
                    if (kept != nullptr)
                    {
                        if (member.size > largestFileInMemory)
                        {
                            throw Error(source.name(), "holds too large a " +
                                                           member.place.name);
                        }
                        append(**kept, piece);
                    }
                };
            });
    finishMember();
    return contents;
}

Buffer signatureFor(const PackageOptions& options, OpenPgp& openPgp,
                    Bytes descriptor)
{
    if (options.signing.signature.empty())
    {
        return openPgp.sign(options.signing.key, descriptor);
    }
    const Source source(options.signing.signature);
    if (source.size() == 0 || source.size() > largestSignature)
    {
        throw Error(source.name(), "is empty or too large for a signature");
    }
    Buffer signature = source.readAll();
    if ((signature.front() & std::byte{0x80}) == std::byte{0})
    {
        throw Error(source.name(), "is not a binary OpenPGP signature (gpg "
                                   "--dearmor makes one of an armoured one)");
    }
    return signature;
}

void checkPackage(const Source& made, const PackageOptions& options,
                  OpenPgp& openPgp, Bytes descriptor, const FileDigests& files)
{
    const Contents contents = readContents(made);
    const bool complete = contents.remarks.empty() && contents.descriptor &&
                          contents.signature &&
                          std::ranges::equal(*contents.descriptor, descriptor);
    if (!complete || contents.payload != files ||
        readDescriptor(*contents.descriptor).digest !=
            compositeOf(contents.payload))
    {
        throw Error(made.name(), "does not hold on the disk what was packed; "
                                 "did the payload change meanwhile?");
    }
    const std::string signer =
        openPgp.verify(*contents.descriptor, *contents.signature);
    if (!options.signing.key.empty() &&
        !sameFingerprint(options.signing.key, signer))
    {
        throw Error(made.name(), "is signed by another key, " + signer);
    }
}

} // namespace

void makePackage(const PackageOptions& options)
{
    const std::vector<fs::path> files = payloadFiles(options.payload);
    for (const fs::path& made : {options.output, options.signing.toBeSigned})
    {
        expectDistinct(made, {options.signing.signature});
        for (const fs::path& file : files)
        {
            expectDistinct(made, {file});
        }
    }
    const FileDigests digests = digestFiles(files);
    const Buffer descriptor =
        writeDescriptor({options.model, options.version, compositeOf(digests),
                         options.systemIds});
    if (!options.signing.toBeSigned.empty())
    {
        writeFile(options.signing.toBeSigned, Source(descriptor));
        report(options.signing.toBeSigned, "descriptor to be signed");
        return;
    }
    OpenPgp openPgp(options.gpgHome);
    const Buffer signature = signatureFor(options, openPgp, descriptor);

    OutputFile output(options.output);
    ZipWriter zip(output);
    zip.add(std::string(descriptorName), Source(descriptor));
    zip.add(std::string(descriptorSignatureName), Source(signature));
    for (const fs::path& file : files)
    {
        zip.add(std::string(payloadPrefix) + file.filename().string(),
                Source(file));
    }
    zip.finish();
    checkPackage(output.readBack(), options, openPgp, descriptor, digests);
    output.commit();
    report(options.output,
           "package with " + std::to_string(files.size()) + " payload file" +
               (files.size() == 1 ? "" : "s") + ", signed and checked");
}

Json describePackage(const Source& file)
{
    const Contents contents = readContents(file);
    Json fields;
    Json& members = fields["members"] = Json::array();
    for (const Member& member : contents.members)
    {
        members.push_back({{"name", member.place.name},
                           {"offset", member.place.offset},
                           {"size", member.size},
                           {"sha256", member.digest}});
    }
    const std::string composite = compositeOf(contents.payload);
    fields["payloadDigest"] = composite;
    if (contents.descriptor)
    {
        try
        {
            Json& descriptor = fields["descriptor"] =
                describeDescriptor(*contents.descriptor);
            const Json::json_pointer stated("/hash/value");
            fields["payloadDigestMatches"] =
                descriptor.contains(stated) && descriptor[stated] == composite;
        }
        catch (const Error& error)
        {
            fields["descriptor"] = error.what();
        }
    }
    if (contents.signature)
    {
        fields["signatures"] = describeSignatures(*contents.signature);
    }
    fields["remarks"] = contents.remarks;
    return fields;
}

} // namespace pack
