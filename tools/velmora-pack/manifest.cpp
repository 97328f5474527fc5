#include "manifest.hpp"

#include "signing.hpp"

#include <sys/stat.h>

#include <cerrno>
#include <optional>

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

namespace pack
{

namespace
{

constexpr std::uint32_t headerSize = 16;
constexpr std::uint32_t recordHeaderSize = 16;
constexpr std::uint16_t releaseType = 10;
constexpr std::size_t releaseOffset = 2;

// What our own manifests hold.
constexpr std::uint16_t ordinaryType = 1;
constexpr std::string_view ordinaryData = "velmora manifest";
constexpr std::uint8_t maskByte = 0x5a;
constexpr std::size_t releaseDataSize = 4;
/** Below the 512 bytes that mark the older format. */
constexpr std::string_view signatureFile = "velmora manifest, no signature\n";

constexpr std::size_t mostRecordsListed = 1000;

void appendRecord(Buffer& manifest, std::uint16_t type, std::uint8_t mask,
                  Bytes data)
{
    appendLittle(manifest, std::uint32_t{0});
    appendLittle(manifest, recordHeaderSize);
    appendLittle(manifest, type);
    appendLittle(manifest, mask);
    appendLittle(manifest, std::uint8_t{0});
    appendLittle(manifest, static_cast<std::uint32_t>(data.size()));
    append(manifest, data);
}

Buffer buildManifest(unsigned release)
{
    Buffer records;
    std::uint32_t count = 1;
    appendRecord(records, ordinaryType, 0, bytesOf(ordinaryData));
    if (release != 0)
    {
        Buffer data(releaseDataSize);
        data[releaseOffset] = static_cast<std::byte>(release ^ maskByte);
        appendRecord(records, releaseType, maskByte, data);
        ++count;
    }
    Buffer manifest;
    append(manifest, bytesOf(manifestMagic));
    appendLittle(manifest, headerSize);
    appendLittle(manifest, count);
    appendLittle(manifest,
                 static_cast<std::uint32_t>(headerSize + records.size()));
    append(manifest, records);
    return manifest;
}

struct Record
{
    std::uint64_t offset;
    std::uint32_t headerLength;
    std::uint16_t type;
    std::uint8_t mask;
    std::uint32_t dataLength;

    std::uint64_t end() const { return offset + headerLength + dataLength; }
};

/** Empty when the record does not lie within the manifest. */
std::optional<Record> recordAt(Bytes manifest, std::uint64_t offset)
{
    if (offset > manifest.size() || manifest.size() - offset < recordHeaderSize)
    {
        return std::nullopt;
    }
    const Bytes header = manifest.subspan(static_cast<std::size_t>(offset));
    const Record record{.offset = offset,
                        .headerLength = loadLittle<std::uint32_t>(header, 4),
                        .type = loadLittle<std::uint16_t>(header, 8),
                        .mask = loadLittle<std::uint8_t>(header, 10),
                        .dataLength = loadLittle<std::uint32_t>(header, 12)};
    return record.end() <= manifest.size() ? std::optional(record)
                                           : std::nullopt;
}

std::optional<unsigned> releaseOf(Bytes manifest, const Record& record)
{
    const std::uint64_t position =
        record.offset + record.headerLength + releaseOffset;
    if (record.type != releaseType || position >= manifest.size())
    {
        return std::nullopt;
    }
    return std::to_integer<unsigned>(
        manifest[static_cast<std::size_t>(position)] ^ std::byte{record.mask});
}

Json describeRecord(Bytes manifest, const Record& record)
{
    Json fields{{"offset", record.offset},
                {"headerLength", record.headerLength},
                {"type", record.type},
                {"maskByte", record.mask},
                {"dataLength", record.dataLength}};
    if (const auto release = releaseOf(manifest, record))
    {
        fields["release"] = *release;
    }
    return fields;
}

/** Lists the records, up to their number or where the walk must end. */
Json describeRecords(Bytes manifest, std::uint64_t offset, std::uint32_t count,
                     Remarks& remarks)
{
    Json records = Json::array();
    for (std::uint32_t i = 0; i < count; ++i)
    {
        const std::string name = "record " + std::to_string(i + 1);
        const auto record = recordAt(manifest, offset);
        if (!record)
        {
            remarks.push_back(name + " does not lie within the manifest");
            break;
        }
        if (i == mostRecordsListed)
        {
            remarks.push_back(name + " and those behind it are not listed");
            break;
        }
        records.push_back(describeRecord(manifest, *record));
        if (record->end() == offset)
        {
            remarks.push_back(name + " has no length, so that none can follow");
            break;
        }
        offset = record->end();
    }
    return records;
}

/** Makes the directory if there is none, and removes it unless it is kept. */
class MadeDirectory
{
  public:
    explicit MadeDirectory(const fs::path& directory) : path(directory)
    {
        made = mkdir(path.c_str(), 0777) == 0;
        if (!made && errno != EEXIST)
        {
            throw systemError(path.string());
        }
    }
    MadeDirectory(const MadeDirectory&) = delete;
    MadeDirectory& operator=(const MadeDirectory&) = delete;
    ~MadeDirectory()
    {
        if (made)
        {
            rmdir(path.c_str());
        }
    }
    void keep() { made = false; }

  private:
    fs::path path;
    bool made;
};

} // namespace

void makeManifest(const ManifestOptions& options)
{
    Buffer content =
        options.prefix.empty() ? Buffer() : Source(options.prefix).readAll();
    const std::size_t start = content.size();
    const Buffer manifest = buildManifest(options.release);
    append(content, manifest);
    if (textOf(content).find(manifestMagic) != start)
    {
        throw Error(options.prefix.string(),
                    "holds \"$KTB\", where the manifest would be looked for");
    }
    expectNoPrivateKey(Source(content));
    if (options.output == STANDARD_OUTPUT)
    {
        throw Error("standard output", "cannot hold a manifest's two files; "
                                       "name a directory");
    }
    for (const char* made : {"image-ktb", "image-ktb.sig"})
    {
        expectNew(options.output / made, {options.prefix}, options.force);
    }
    const tools::SignalCleanup cleanup;
    MadeDirectory directory(options.output);
    OutputFile file(options.output / "image-ktb");
    OutputFile signature(options.output / "image-ktb.sig");
    file.write(content);
    expectCopy(file.readBack(), Source(content));
    signature.write(bytesOf(signatureFile));
    expectCopy(signature.readBack(), Source(bytesOf(signatureFile)));
    file.commit(&signature);
    directory.keep();
    report(options.output,
           "image-ktb and image-ktb.sig" +
               (options.release == 0
                    ? std::string()
                    : ", release " + std::to_string(options.release)));
}

Json describeManifest(const Source& file, Remarks& remarks)
{
    const Buffer content = file.readAll();
    const std::size_t start = textOf(content).find(manifestMagic);
    if (start == std::string_view::npos)
    {
        throw Error(file.name(), "holds no \"$KTB\"");
    }
    Bytes manifest = Bytes(content).subspan(start);
    Json fields{{"offset", start}};
    if (manifest.size() < headerSize)
    {
        remarks.emplace_back("the header is not complete");
        return fields;
    }
    const auto recordOffset = loadLittle<std::uint32_t>(manifest, 4);
    const auto recordCount = loadLittle<std::uint32_t>(manifest, 8);
    const auto length = loadLittle<std::uint32_t>(manifest, 12);
    fields["magic"] = manifestMagic;
    fields["recordOffset"] = recordOffset;
    fields["recordCount"] = recordCount;
    fields["length"] = length;
    if (length < headerSize || length > manifest.size())
    {
        remarks.emplace_back("the length does not fit the file");
        return fields;
    }
    fields["records"] = describeRecords(manifest.first(length), recordOffset,
                                        recordCount, remarks);
    return fields;
}

} // namespace pack
