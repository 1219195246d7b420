// SPDX-License-Identifier: BSD-3-Clause
#include "IntegerText.h"

#include <algorithm>
#include <cstdint>

// The scanf of older C libraries knows no base-2 constants, and all of them follow the process's locale.

namespace {

constexpr unsigned kNoDigit = 16;

bool isBlank(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

bool isDecimalDigit(char c)
{
    return c >= '0' && c <= '9';
}

constexpr int kLowerCase = 'a' - 'A'; // the bit that an upper-case letter lacks

unsigned digitValue(char c)
{
    const auto decimal = static_cast<unsigned>(c - '0');
    if (decimal < 10)
        return decimal;
    const auto letter = static_cast<unsigned>((c | kLowerCase) - 'a');
    return letter < 6 ? letter + 10 : kNoDigit;
}

/// Step over the prefix of a number that starts with "0" and tell its base. Without digits it is none.
unsigned takePrefix(const char*& text)
{
    const int marker = text[1] | kLowerCase;
    const unsigned base = marker == 'x' ? 16 : 2;
    if ((marker != 'x' && marker != 'b') || digitValue(text[2]) >= base)
        return 8;
    text += 2;
    return base;
}

std::uint64_t takeDigits(const char*& text, unsigned base)
{
    std::uint64_t magnitude = 0;
    for (unsigned digit = digitValue(*text); digit < base; digit = digitValue(*++text)) {
        if (__builtin_mul_overflow(magnitude, base, &magnitude) ||
            __builtin_add_overflow(magnitude, digit, &magnitude))
            return UINT64_MAX;
    }
    return magnitude;
}

/// Take the number that @p text begins with, its sign included. Behind it, or inside it when it goes beyond
/// 64 bits, is where @p text then points.
bool takeNumber(const char*& text, std::int64_t& value)
{
    const bool negative = *text == '-';
    if (negative || *text == '+')
        ++text;
    if (!isDecimalDigit(*text))
        return false;
    const unsigned base = *text == '0' ? takePrefix(text) : 10;
    const std::uint64_t limit = static_cast<std::uint64_t>(INT64_MAX) + (negative ? 1 : 0);
    const std::uint64_t magnitude = std::min(takeDigits(text, base), limit);
    value = static_cast<std::int64_t>(negative ? 0 - magnitude : magnitude);
    return true;
}

} // namespace

bool parseIntegerText(const char* text, int& value) noexcept
{
    while (isBlank(*text))
        ++text;
    std::int64_t number = 0;
    if (!takeNumber(text, number))
        return false;
    value = static_cast<int>(number);
    return true;
}

bool parseWholeInteger(const char* text, int least, int most, int& value) noexcept
{
    std::int64_t number = 0;
    if (text == nullptr || !takeNumber(text, number) || *text != '\0' || number < least || number > most)
        return false;
    value = static_cast<int>(number);
    return true;
}
