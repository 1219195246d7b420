// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>

/// Integers in the order of the wire: most significant byte first.

inline void storeBigEndian16(unsigned char* data, std::uint16_t value)
{
    data[0] = static_cast<unsigned char>(value >> 8);
    data[1] = static_cast<unsigned char>(value);
}

inline void storeBigEndian32(unsigned char* data, std::uint32_t value)
{
    storeBigEndian16(data, static_cast<std::uint16_t>(value >> 16));
    storeBigEndian16(data + 2, static_cast<std::uint16_t>(value));
}

inline std::uint16_t loadBigEndian16(const unsigned char* data)
{
    return static_cast<std::uint16_t>(data[0] << 8 | data[1]);
}

inline std::uint32_t loadBigEndian32(const unsigned char* data)
{
    return std::uint32_t{loadBigEndian16(data)} << 16 | loadBigEndian16(data + 2);
}
