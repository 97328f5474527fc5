#include "files.hpp"
#include "inspect.hpp"
#include "making.hpp"

#include <optional>

namespace fs = std::filesystem;

namespace pack
{
namespace
{

constexpr std::string_view MAGIC = "$KTB";
constexpr std::uint32_t HEADER_SIZE = 16;
constexpr std::uint32_t RECORD_HEADER_SIZE = 16;
constexpr std::uint16_t RELEASE_TYPE = 10;
constexpr std::size_t RELEASE_OFFSET = 2;

// What our own manifests hold.
constexpr std::uint16_t ORDINARY_TYPE = 1;
constexpr std::string_view ORDINARY_DATA = "velmora manifest";
constexpr std::uint8_t MASK_BYTE = 0x5a;
constexpr std::size_t RELEASE_DATA_SIZE = 4;
/** Below the 512 bytes that mark the older format. */
constexpr std::string_view SIGNATURE_FILE = "velmora manifest, no signature\n";

constexpr std::size_t MOST_RECORDS_LISTED = 1000;

void appendRecord(Buffer& manifest, std::uint16_t type, std::uint8_t mask,
                  Bytes data)
{
    appendLittle(manifest, std::uint32_t{0});
    appendLittle(manifest, RECORD_HEADER_SIZE);
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
    appendRecord(records, ORDINARY_TYPE, 0, bytesOf(ORDINARY_DATA));
    if (release != 0)
    {
        Buffer data(RELEASE_DATA_SIZE);
        data[RELEASE_OFFSET] = static_cast<std::byte>(release ^ MASK_BYTE);
        appendRecord(records, RELEASE_TYPE, MASK_BYTE, data);
        ++count;
    }
    Buffer manifest;
    append(manifest, bytesOf(MAGIC));
    appendLittle(manifest, HEADER_SIZE);
    appendLittle(manifest, count);
    appendLittle(manifest,
                 static_cast<std::uint32_t>(HEADER_SIZE + records.size()));
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
    if (offset > manifest.size() ||
        manifest.size() - offset < RECORD_HEADER_SIZE)
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

Json describeRecord(Bytes manifest, const Record& record)
{
    Json fields{{"offset", record.offset},
                {"headerLength", record.headerLength},
                {"type", record.type},
                {"maskByte", record.mask},
                {"dataLength", record.dataLength}};
    const std::uint64_t release =
        record.offset + record.headerLength + RELEASE_OFFSET;
    if (record.type == RELEASE_TYPE && release < manifest.size())
    {
        fields["release"] = std::to_integer<unsigned>(
            manifest[static_cast<std::size_t>(release)] ^
            std::byte{record.mask});
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
        if (i == MOST_RECORDS_LISTED)
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

} // namespace

void makeManifest(const Options& options)
{
    expectNewDirectory(options.output);
    const Output directory(options.output);
    fs::create_directory(directory.path());
    writeFile(directory.path() / "image-ktb", false,
              Source(buildManifest(options.release)));
    writeFile(directory.path() / "image-ktb.sig", false,
              Source(bytesOf(SIGNATURE_FILE)));
    directory.renameToTarget();
    report(options.output,
           "image-ktb and image-ktb.sig" +
               (options.release == 0
                    ? std::string()
                    : ", release " + std::to_string(options.release)));
}

bool isManifest(const Source& file)
{
    return file.size() <= LARGEST_FILE_IN_MEMORY &&
           textOf(file.readAll()).find(MAGIC) != std::string_view::npos;
}

Json describeManifest(const Source& file, Remarks& remarks)
{
    const Buffer content = file.readAll();
    const std::size_t start = textOf(content).find(MAGIC);
    if (start == std::string_view::npos)
    {
        throw Error(file.name(), "holds no \"$KTB\"");
    }
    Bytes manifest = Bytes(content).subspan(start);
    Json fields{{"offset", start}};
    if (manifest.size() < HEADER_SIZE)
    {
        remarks.emplace_back("the header is not complete");
        return fields;
    }
    const auto recordOffset = loadLittle<std::uint32_t>(manifest, 4);
    const auto recordCount = loadLittle<std::uint32_t>(manifest, 8);
    const auto length = loadLittle<std::uint32_t>(manifest, 12);
    fields["magic"] = MAGIC;
    fields["recordOffset"] = recordOffset;
    fields["recordCount"] = recordCount;
    fields["length"] = length;
    if (length < HEADER_SIZE || length > manifest.size())
    {
        remarks.emplace_back("the length does not fit the file");
        return fields;
    }
    fields["records"] = describeRecords(manifest.first(length), recordOffset,
                                        recordCount, remarks);
    return fields;
}

} // namespace pack
