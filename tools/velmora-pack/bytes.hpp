#pragma once

#include "common/error.hpp"

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace pack
{

using Bytes = std::span<const std::byte>;
using Buffer = std::vector<std::byte>;

inline Bytes bytesOf(std::string_view text)
{
    return std::as_bytes(std::span(text));
}

inline std::string_view textOf(Bytes bytes)
{
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

inline const unsigned char* unsignedData(Bytes bytes)
{
    return reinterpret_cast<const unsigned char*>(bytes.data());
}

inline unsigned char* unsignedData(std::span<std::byte> bytes)
{
    return reinterpret_cast<unsigned char*>(bytes.data());
}

inline void append(Buffer& buffer, Bytes bytes)
{
    buffer.insert(buffer.end(), bytes.begin(), bytes.end());
}

/** The caller has made sure that the integer lies within the bytes. */
template <std::unsigned_integral T>
T loadLittle(Bytes bytes, std::size_t offset)
{
    T value = 0;
    for (std::size_t i = sizeof(T); i > 0; --i)
    {
        value = static_cast<T>((std::uint64_t{value} << 8) |
                               std::to_integer<T>(bytes[offset + i - 1]));
    }
    return value;
}

template <std::unsigned_integral T>
void appendLittle(Buffer& buffer, T value)
{
    for (std::size_t i = 0; i < sizeof(T); ++i)
    {
        buffer.push_back(static_cast<std::byte>(value >> (8 * i)));
    }
}

inline bool isZero(Bytes bytes)
{
    return std::ranges::all_of(bytes, [](std::byte byte)
                               { return byte == std::byte{0}; });
}

inline std::string hex(Bytes bytes)
{
    return tools::hexadecimal(textOf(bytes));
}

} // namespace pack
