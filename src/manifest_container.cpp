#define LOG_BLOCK 13000

#include "manifest_container.hpp"

#include "handles.hpp"
#include "log.hpp"
#include "velmora.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace
{

using namespace velmora;

constexpr const char* RELEASE_MARKER_FILE = "/tmp/ingressRelease";
constexpr std::size_t RECORD_HEADER_SIZE = 16;
constexpr std::uint16_t RELEASE_RECORD_TYPE = 10;
/** Offset of the release in a record's data. */
constexpr std::uint64_t RELEASE_OFFSET = 2;

/** The rest of a stream, by the stream's own reading, which reports an error
 *  in its state. */
std::string readAll(std::ifstream& file)
{
    std::string content;
    std::array<char, 65536> piece{};
    while (file.read(piece.data(), piece.size()), file.gcount() > 0)
    {
        content.append(piece.data(), static_cast<std::size_t>(file.gcount()));
    }
    return content;
}

/** Walks the records for the release marker. A record that is not whole ends
 *  the walk. So does one without length, which would lead to itself. */
std::optional<std::uint8_t> findRelease(Bytes manifest, std::uint64_t offset,
                                        std::uint64_t recordCount)
{
    for (std::uint64_t step = 0; step <= recordCount; ++step)
    {
        if (offset > manifest.size() ||
            manifest.size() - offset < RECORD_HEADER_SIZE)
        {
            return std::nullopt;
        }
        const Bytes record = manifest.subspan(static_cast<std::size_t>(offset));
        const std::uint64_t headerLength = loadLe32(record, 4);
        const std::uint64_t dataLength = loadLe32(record, 12);
        const std::uint64_t length = headerLength + dataLength;
        if (length > record.size())
        {
            return std::nullopt;
        }
        if (loadLe16(record, 8) == RELEASE_RECORD_TYPE)
        {
            if (dataLength <= RELEASE_OFFSET)
            {
                return std::nullopt;
            }
            const auto position =
                static_cast<std::size_t>(headerLength + RELEASE_OFFSET);
            return static_cast<std::uint8_t>(record[position] ^ record[10]);
        }
        if (length == 0)
        {
            return std::nullopt;
        }
        offset += length;
    }
    return std::nullopt;
}

} // namespace

void velmora::writeReleaseMarker(Bytes manifest)
{
    if (manifest.size() < sizeof(manifestHeader))
    {
        return;
    }
    const std::uint8_t release =
        findRelease(manifest,
                    loadLe32(manifest, offsetof(manifestHeader, recordOffset)),
                    loadLe32(manifest, offsetof(manifestHeader, recordCount)))
            .value_or(0);
    if (release != 1 && release != 2)
    {
        return;
    }
    constexpr mode_t READABLE_BY_ALL = 0666;
    const FileDescriptor file(
        open(RELEASE_MARKER_FILE,
             O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
             READABLE_BY_ALL));
    struct statx status{};
    if (!file ||
        statx(file.get(), "", AT_EMPTY_PATH, STATX_TYPE | STATX_NLINK,
              &status) != 0 ||
        !S_ISREG(status.stx_mode) || status.stx_nlink != 1 ||
        ftruncate(file.get(), 0) != 0)
    {
        return;
    }
    const std::array<char, 2> text{static_cast<char>('0' + release), '\n'};
    [[maybe_unused]] const ssize_t written =
        write(file.get(), text.data(), text.size());
}

bool ValidateQOR::extractManifest(std::ifstream& file, const std::string& magic,
                                  manifestHeader& header,
                                  std::vector<std::uint8_t>& manifest)
{
    const std::size_t found = readAll(file).find(magic);
    if (found == std::string::npos)
    {
        return false;
    }
    file.clear();
    const std::streamoff end = file.seekg(0, std::ios::end).tellg();
    file.seekg(static_cast<std::streamoff>(found), std::ios::beg);
    if (!readExactly(file, reinterpret_cast<char*>(&header), sizeof(header)))
    {
        return false;
    }
    std::array<std::uint8_t, sizeof(header)> stored{};
    std::memcpy(stored.data(), &header, stored.size());
    const std::size_t length =
        loadLe32(stored, offsetof(manifestHeader, length));
    // This reserves addresses only. Memory is used as bytes are read.
    const auto storage = tryAllocate(length);
    if (storage == nullptr)
    {
        PRINT_FAILURE("no memory for a manifest of the stated length",
                      "Failed to allocate memory for maifest");
        return false;
    }
    if (length < stored.size() || static_cast<std::int64_t>(length) >
                                      end - static_cast<std::streamoff>(found))
    {
        return false;
    }
    std::memcpy(storage.get(), stored.data(), stored.size());
    if (!readExactly(file, storage.get() + stored.size(),
                     length - stored.size()))
    {
        return false;
    }
    manifest.assign(storage.get(), storage.get() + length);
    return true;
}
