// The text of an integer against strtoll.

#include "AInteger.h"
#include "Fuzz.h"
#include "NumberFormatException.h"

#include <cstdlib>
#include <optional>

namespace {

struct Number {
    long long value;
    bool isWhole; // nothing stands before or behind it
};

std::optional<Number> expectedNumber(const char* text)
{
    const char* digits = text + std::strspn(text, " \t\n\v\f\r");
    const bool startsWithIt = digits == text;
    std::string number;
    if (*digits == '-' || *digits == '+')
        number = *digits++;
    if (*digits < '0' || *digits > '9')
        return std::nullopt;
    const bool isBinary =
        digits[0] == '0' && (digits[1] == 'b' || digits[1] == 'B') && (digits[2] == '0' || digits[2] == '1');
    if (isBinary)
        digits += 2;
    const std::size_t count = isBinary ? std::strspn(digits, "01") : std::strlen(digits);
    number.append(digits, count);
    char* end = nullptr;
    const long long value = std::strtoll(number.c_str(), &end, isBinary ? 2 : 0);
    return Number{value, startsWithIt && *end == '\0' && digits[count] == '\0'};
}

std::optional<int> parsedValue(const char* text)
{
    try {
        return AInteger::parseInt(text);
    } catch (const NumberFormatException& exception) {
        MUST(exception.getMessage() == std::string(text).substr(0, 4095));
        return std::nullopt;
    }
}

} // namespace

FUZZ_TARGET
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::optional<Number> number = expectedNumber(text.c_str());
    const std::optional<int> expected =
        number ? std::optional(static_cast<int>(number->value)) : std::nullopt;
    MUST(parsedValue(text.c_str()) == expected);

    constexpr int kEarlier = 77;
    const int least = static_cast<int>(size) - 20, most = expected.value_or(0);
    const bool fits = number && number->isWhole && number->value >= least && number->value <= most;
    int value = kEarlier;
    MUST(AInteger::parseWhole(text.c_str(), least, most, value) == fits);
    MUST(value == (fits ? static_cast<int>(number->value) : kEarlier));
    return 0;
}
