#pragma once

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <memory>
#include <new>
#include <span>

namespace velmora
{

using Bytes = std::span<const std::uint8_t>;

inline std::uint16_t loadLe16(Bytes bytes, std::size_t offset)
{
    return static_cast<std::uint16_t>(bytes[offset] | bytes[offset + 1] << 8);
}

inline std::uint32_t loadLe32(Bytes bytes, std::size_t offset)
{
    return loadLe16(bytes, offset) |
           static_cast<std::uint32_t>(loadLe16(bytes, offset + 2)) << 16;
}

inline bool readExactly(std::ifstream& file, char* data, std::size_t size)
{
    file.read(data, static_cast<std::streamsize>(size));
    return file.gcount() == static_cast<std::streamsize>(size);
}

inline std::unique_ptr<char[]> tryAllocate(std::size_t size)
{
    return std::unique_ptr<char[]>(new (std::nothrow) char[size]);
}

/** Leaves the manifest's release marker, if it has one.
 *
 *  Everybody may write in the marker's directory. Somebody may have put a
 *  link, a hard link, or a FIFO in its place: none of them is written to, or
 *  waited for. */
void writeReleaseMarker(Bytes manifest);

} // namespace velmora
