// SPDX-License-Identifier: BSD-3-Clause
#pragma once

/// Read the integer that @p text, which must not be null, begins with; what follows it is ignored.
///
/// Blanks (those of the C locale) and one sign may precede it. "0x" introduces hexadecimal, "0b" base-2 and
/// "0" octal digits, anything else is decimal; a prefix without digits reads as 0. A number outside int gives
/// the low 32 bits of its 64-bit value, which saturates at the limits of 64 bits.
///
/// @return whether there was a number; without one @p value keeps what it held.
bool parseIntegerText(const char* text, int& value) noexcept;

/// Read @p text as one whole integer, written as for parseIntegerText() with nothing before and nothing
/// behind it.
///
/// @return whether it is one, from @p least to @p most; otherwise, and for null, @p value keeps what it held.
bool parseWholeInteger(const char* text, int least, int most, int& value) noexcept;
