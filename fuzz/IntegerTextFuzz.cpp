// The text of an integer, in AInteger and in the session id that PAM publishes, against strtoll.

#include "AInteger.h"
#include "FakePam.h"
#include "Fuzz.h"
#include "NumberFormatException.h"
#include "PAMHelper.h"
#include "base/IntegerText.h"

#include <cstdlib>
#include <optional>

namespace {

std::optional<int> expectedValue(const char* text)
{
    const char* digits = text + std::strspn(text, " \t\n\v\f\r");
    std::string number;
    if (*digits == '-' || *digits == '+')
        number = *digits++;
    if (*digits < '0' || *digits > '9')
        return std::nullopt;
    const bool isBinary = digits[0] == '0' && (digits[1] == 'b' || digits[1] == 'B');
    if (isBinary)
        number.append(digits + 2, std::strspn(digits + 2, "01"));
    else
        number += digits;
    return static_cast<int>(std::strtoll(number.c_str(), nullptr, isBinary ? 2 : 0));
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

int sessionNumber(const char* text)
{
    static std::string s_text = "any";
    static bool s_skip = true;
    auto* const helper = new PAMHelper(nullptr, nullptr);
    fuzz::fakePam().sessionId = text;
    helper->authenticate(s_text, s_text, s_text, s_skip);
    MUST(helper->startSession());
    const int number = helper->getKEPSessionId();
    helper->dispose();
    return number;
}

} // namespace

FUZZ_TARGET
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::optional<int> expected = expectedValue(text.c_str());
    MUST(parsedValue(text.c_str()) == expected);

    constexpr int kEarlier = 77;
    int value = kEarlier;
    MUST(parseIntegerText(text.c_str(), value) == expected.has_value());
    MUST(value == expected.value_or(kEarlier));
    MUST(sessionNumber(text.c_str()) == expected.value_or(0));

    MUST(AInteger::parseInt(AInteger::toString(value).c_str()) == value);
    return 0;
}
