// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "GorvApi.h"

#include <string>

/// An int, its text, and integers in byte buffers with the most significant byte first.
///
/// Only assignment changes an object; all else is safe from any thread. Offsets count bytes from @p data and
/// are not checked: the two or four bytes from there must lie inside the caller's buffer.
///
/// @code
/// unsigned char frame[6];
/// AInteger::encodeShort(frame, 0, 258);     // 01 02
/// AInteger::encodeInt(frame, 2, -2);        // FF FF FF FE
/// @endcode
///
/// @include examples/reference/AInteger.cpp
/// @verbinclude examples/reference/AInteger.out
class GORV_API AInteger {
public:
    /// Hold @p value.
    explicit AInteger(int value);

    virtual ~AInteger();

    /// Copies the value.
    AInteger(const AInteger&) = default;
    /// Copies the value.
    AInteger& operator=(const AInteger&) = default;

    /// Returns the value given at construction.
    int getValue();

    /// Returns the value in decimal.
    std::string toString();
    /// Returns @p value in decimal.
    static std::string toString(int value);

    /// Read the integer that @p text, which must not be null, begins with; what follows it is ignored.
    ///
    /// White space and a sign may precede it. "0x" introduces hexadecimal, "0b" base-2 and "0" octal digits.
    /// A number outside int gives the low 32 bits of its 64-bit value, which stops at the limits of 64 bits.
    /// Throws NumberFormatException, with @p text as its message, when there is no number.
    static int parseInt(const char* text);

    /// Read @p text, all of which must be one integer as parseInt() reads it, with no blank or anything else
    /// before or behind it. A prefix needs digits.
    /// @return whether it is one, from @p least to @p most. If not, as with null, @p value keeps what it
    /// held.
    static bool parseWhole(const char* text, int least, int most, int& value) noexcept;

    /// Returns the 16-bit integer at @p data + @p offset, 0 to 65535.
    static int decodeShort(unsigned char* data, int offset);
    /// Returns the 32-bit integer at @p data + @p offset.
    static int decodeInt(unsigned char* data, int offset);

    /// Store the 16 bits of @p value at @p data + @p offset.
    static void encodeShort(unsigned char* data, int offset, short value);
    /// Store the 32 bits of @p value at @p data + @p offset.
    static void encodeInt(unsigned char* data, int offset, int value);

private:
    int m_value;
};
