#include "descriptor.hpp"
#include "inspect.hpp"
#include "making.hpp"
#include "openpgp.hpp"
#include "openssl.hpp"
#include "zip.hpp"

#include <algorithm>
#include <array>
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

/** Files that desktops and editors leave, and nobody means to ship. */
bool isLeftover(std::string_view name)
{
    constexpr std::array ENDS{"~",    ".bak", ".BAK", ".orig", ".rej",
                              ".swn", ".swo", ".swp", ".tmp"};
    return name.starts_with('.') || name.starts_with('#') ||
           name == "Thumbs.db" || name == "desktop.ini" ||
           std::ranges::any_of(ENDS, [&](std::string_view end)
                               { return name.ends_with(end); });
}

/** An output there would be part of the payload the next time. */
void expectOutside(const fs::path& made, const fs::path& payload)
{
    const fs::path below = fs::weakly_canonical(fs::absolute(made))
                               .lexically_relative(fs::canonical(payload));
    if (made != STANDARD_OUTPUT && fs::is_directory(payload) &&
        !below.empty() && *below.begin() != "..")
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
        if (isLeftover(entry.path().filename().native()))
        {
            warn(entry.path().string(), "looks like what a desktop or an "
                                        "editor leaves, and is packed");
        }
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
        const Source source(file);
        expectNoPrivateKey(source);
        size += source.size();
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
    /** Name, offset, size and digest of each. */
    Json members = Json::array();
    std::set<std::string> names;
    std::optional<Buffer> descriptor;
    std::optional<Buffer> signature;
    FileDigests payload;
    std::uint64_t payloadSize = 0;
    Remarks remarks;
};

/** Counts a member as what its name says it is. */
void classify(Contents& contents, const ZipMember& member, std::uint64_t size,
              const std::string& digest)
{
    const auto remark = [&](const char* what)
    { contents.remarks.push_back("member " + member.name + " " + what); };
    std::string_view name = member.name;
    if (hasVersionNumber(name) ||
        std::ranges::any_of(name, [](unsigned char c)
                            { return std::iscntrl(c) != 0; }))
    {
        remark("is extracted under another name");
    }
    if (!contents.names.insert(member.name).second)
    {
        remark("is there more than once");
    }
    if (name == DESCRIPTOR_NAME || name == DESCRIPTOR_SIGNATURE_NAME ||
        name == PAYLOAD_PREFIX)
    {
        return;
    }
    if (!name.starts_with(PAYLOAD_PREFIX))
    {
        remark("is not part of a package");
        return;
    }
    name.remove_prefix(PAYLOAD_PREFIX.size());
    if (!member.regular || name.find('/') != std::string_view::npos)
    {
        remark("is not covered by the payload's digest");
        return;
    }
    contents.payload.insert_or_assign(std::string(name), digest);
    contents.payloadSize += size;
}

Contents readContents(const Source& source)
{
    Contents contents;
    const auto read = [&](const ZipMember& member, const ZipContent& content)
    {
        Buffer* const kept = member.name == DESCRIPTOR_NAME
                                 ? &contents.descriptor.emplace()
                             : member.name == DESCRIPTOR_SIGNATURE_NAME
                                 ? &contents.signature.emplace()
                                 : nullptr;
        std::uint64_t size = 0;
        Digest digest(EVP_sha256());
        content(
            [&](Bytes piece)
            {
                size += piece.size();
                digest.update(piece);
                if (kept != nullptr && size > LARGEST_FILE_IN_MEMORY)
                {
                    throw Error(source.name(),
                                "holds too large a " + member.name);
                }
                if (kept != nullptr)
                {
                    append(*kept, piece);
                }
            });
        const std::string text = hex(digest.finish());
        contents.members.push_back({{"name", member.name},
                                    {"offset", member.offset},
                                    {"size", size},
                                    {"sha256", text}});
        classify(contents, member, size, text);
    };
    readZip(source, contents.remarks, read);
    return contents;
}

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

void checkPackage(const Source& made, const PackageOptions& options,
                  Bytes descriptor, const FileDigests& files)
{
    const Contents contents = readContents(made);
    const bool complete = contents.remarks.empty() && contents.descriptor &&
                          contents.signature &&
                          std::ranges::equal(*contents.descriptor, descriptor);
    if (!complete || contents.payload != files)
    {
        throw Error(made.name(), "does not hold on the disk what was packed; "
                                 "did the payload change meanwhile?");
    }
    checkSignatures(options.gpgHome, options.trust, options.signing.keys,
                    *contents.descriptor, *contents.signature);
}

/** With the answer to whether it states the payload's digest. */
void describePackedDescriptor(Json& fields, Bytes descriptor, Remarks& remarks)
{
    try
    {
        const Json described = describeDescriptor(
            Source(descriptor, std::string(DESCRIPTOR_NAME)), remarks);
        fields["descriptor"] = described;
        const Json::json_pointer stated("/hash/value");
        if (!described.contains(stated))
        {
            return;
        }
        const bool matches = described[stated] == fields["payloadDigest"];
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

} // namespace

void makePackage(const PackageOptions& options)
{
    const std::vector<fs::path> files = payloadFiles(options.payload);
    const Signing& signing = options.signing;
    expectOutside(signing.made(), options.payload);
    std::vector<fs::path> inputs(files);
    inputs.push_back(options.trust.anchor);
    signing.expectNewOutput(std::move(inputs));
    const FileDigests digests = digestFiles(files);
    const Buffer descriptor =
        writeDescriptor({options.model, options.version, compositeOf(digests),
                         options.systemIds});
    if (!signing.toBeSigned.empty())
    {
        writeFile(signing.toBeSigned, Source(descriptor));
        report(signing.toBeSigned, "descriptor to be signed");
        return;
    }
    const Buffer signature = signatureFor(options, descriptor);
    OutputFile output(signing.output);
    ZipWriter zip(output);
    zip.add(std::string(DESCRIPTOR_NAME), Source(descriptor));
    zip.add(std::string(DESCRIPTOR_SIGNATURE_NAME), Source(signature));
    for (const fs::path& file : files)
    {
        zip.add(std::string(PAYLOAD_PREFIX) + file.filename().string(),
                Source(file));
    }
    zip.finish();
    checkPackage(output.readBack(), options, descriptor, digests);
    output.commit();
    report(signing.output,
           "package with " + std::to_string(files.size()) + " payload file" +
               (files.size() == 1 ? "" : "s") + ", signed and checked");
}

Json describePackage(const Source& file, Remarks& remarks)
{
    const Contents contents = readContents(file);
    remarks = contents.remarks;
    Json fields{{"members", contents.members},
                {"payloadDigest", compositeOf(contents.payload)}};
    if (contents.payloadSize == 0)
    {
        remarks.emplace_back("the payload is empty");
    }
    if (!contents.descriptor)
    {
        remarks.emplace_back("there is no package.xml");
    }
    else
    {
        describePackedDescriptor(fields, *contents.descriptor, remarks);
    }
    if (!contents.signature)
    {
        remarks.emplace_back("there is no package.xml.sign");
    }
    else
    {
        fields["signatures"] = describeSignatures(*contents.signature, remarks);
    }
    return fields;
}

} // namespace pack
