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

char lowerCase(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

unsigned digitValue(char c)
{
    if (isDecimalDigit(c))
        return static_cast<unsigned>(c - '0');
    const char letter = lowerCase(c);
    return letter >= 'a' && letter <= 'f' ? static_cast<unsigned>(letter - 'a') + 10 : kNoDigit;
}

/// Step over the prefix of a number that starts with "0" and tell its base.
unsigned takePrefix(const char*& text)
{
    const char marker = lowerCase(text[1]);
    if (marker != 'x' && marker != 'b')
        return 8;
    text += 2;
    return marker == 'x' ? 16 : 2;
}

std::uint64_t readDigits(const char*& text, unsigned base)
{
    std::uint64_t magnitude = 0;
    for (unsigned digit = digitValue(*text); digit < base; digit = digitValue(*++text)) {
        if (__builtin_mul_overflow(magnitude, base, &magnitude) ||
            __builtin_add_overflow(magnitude, digit, &magnitude))
            return UINT64_MAX;
    }
    return magnitude;
}

} // namespace

bool parseIntegerText(const char* text, int& value) noexcept
{
    while (isBlank(*text))
        ++text;
    const bool negative = *text == '-';
    if (negative || *text == '+')
        ++text;
    if (!isDecimalDigit(*text))
        return false;
    const unsigned base = *text == '0' ? takePrefix(text) : 10;
    const std::uint64_t limit = static_cast<std::uint64_t>(INT64_MAX) + (negative ? 1 : 0);
    const std::uint64_t magnitude = std::min(readDigits(text, base), limit);
    value = static_cast<int>(negative ? 0 - magnitude : magnitude);
    return true;
}

bool parseWholeInteger(const char* text, int least, int most, int& value) noexcept
{
    const bool negative = *text == '-';
    if (negative || *text == '+')
        ++text;
    if (!isDecimalDigit(*text))
        return false;
    const unsigned base = *text == '0' ? takePrefix(text) : 10;
    const char* digits = text;
    const std::uint64_t magnitude = readDigits(text, base);
    if (text == digits || *text != '\0' || magnitude > std::uint64_t{INT32_MAX} + 1)
        return false;
    const auto number = static_cast<std::int64_t>(negative ? 0 - magnitude : magnitude);
    if (number < least || number > most)
        return false;
    value = static_cast<int>(number);
    return true;
}
