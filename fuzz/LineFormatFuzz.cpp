// Lines of the log, with formats and arguments of any kind, against vsnprintf.

#include "Fuzz.h"
#include "log/LineFormat.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <memory>

namespace {

constexpr std::size_t kWords = 8;

using Words = std::array<std::uintptr_t, kWords>;

/// Calls @p taker with the arguments of the message. Integers, pointers and floating-point numbers of a
/// variable argument list are each taken in their own order, and every integer fills a word.
template <typename Taker>
void pass(Taker taker, const Words& words, double number, const char* format)
{
    const auto forward = [](Taker& target, const char* text, ...) {
        va_list args;
        va_start(args, text);
        target(text, args);
        va_end(args);
    };
    errno = EDOM; // for "%m"
    forward(taker, format, words[0], words[1], words[2], words[3], words[4], words[5], words[6], words[7],
            number, number, number, number, number, number, number, number);
}

/// A conversion with flags, width, precision and length, most of them plain. Takes a word for its argument,
/// if it has one that is no floating-point number.
std::string nextConversion(FuzzedDataProvider& input, Words& words, std::size_t& used,
                           const std::string& argument)
{
    static const char* const s_plain[] = {"d", "i", "u", "x", "s", "c", "p"};
    static const char* const s_rare[] = {"X", "o", "hhd", "hd", "ld", "lu", "zu", "jx", "td", "lc", "lld"};
    static const char* const s_wordless[] = {"m", "f", "g", "a"};
    static const char* const s_flags[] = {"", "-", "+", " ", "0", "#"};
    std::string text = "%";
    if (input.ConsumeProbability<float>() < 0.3F) {
        text += input.PickValueInArray(s_flags);
        text += std::to_string(input.ConsumeIntegralInRange(0, 60));
        if (input.ConsumeBool())
            text += "." + std::to_string(input.ConsumeIntegralInRange(0, 40));
    }
    if (input.ConsumeProbability<float>() < 0.1F)
        return text + input.PickValueInArray(s_wordless);
    const std::string kind = input.ConsumeProbability<float>() < 0.7F ? input.PickValueInArray(s_plain)
                                                                      : input.PickValueInArray(s_rare);
    const bool isText = kind == "s" && input.ConsumeProbability<float>() < 0.9F;
    words[used++] = isText        ? reinterpret_cast<std::uintptr_t>(argument.c_str())
                    : kind == "s" ? 0
                                  : input.ConsumeIntegral<std::uintptr_t>();
    return text + kind;
}

/// Literal text without a percent sign.
std::string nextLiteral(FuzzedDataProvider& input)
{
    std::string text = input.ConsumeRandomLengthString(30);
    std::erase(text, '%');
    std::erase(text, '\0');
    return text;
}

std::string nextFormat(FuzzedDataProvider& input, Words& words, const std::string& argument)
{
    std::string format = nextLiteral(input);
    const auto conversions = input.ConsumeIntegralInRange<std::size_t>(0, kWords);
    std::size_t used = 0;
    for (std::size_t i = 0; i < conversions; ++i) {
        format += nextConversion(input, words, used, argument);
        format += nextLiteral(input);
        if (input.ConsumeProbability<float>() < 0.2F)
            format += "%%";
    }
    if (input.ConsumeProbability<float>() < 0.05F)
        format += input.ConsumeBool() ? "%" : "%!"; // what printf refuses
    return format;
}

/// What vsnprintf makes of it in @p room bytes, zero bytes and all. A message that it can't finish ends at
/// the first zero byte.
std::string expectedMessage(std::size_t room, const Words& words, double number, const char* format)
{
    std::vector<char> bytes(room, '\0');
    int wanted = 0;
    pass([&](const char* text, va_list args) { wanted = std::vsnprintf(bytes.data(), room, text, args); },
         words, number, format);
    if (wanted < 0)
        return bytes.data();
    return {bytes.data(), std::min(static_cast<std::size_t>(wanted), room - 1)};
}

void checkLine(std::size_t size, const std::string& head, const Words& words, double number,
               const char* format)
{
    const std::string kept = head.substr(0, size - 1);
    const std::string expected = kept + expectedMessage(size - kept.size(), words, number, format);

    const std::unique_ptr<char[]> buffer(new char[size]); // with nothing behind it
    std::memset(buffer.get(), '~', size);
    LineFormat line(buffer.get(), size);
    line.append(head);
    pass([&](const char* text, va_list args) { line.appendMessage(text, args); }, words, number, format);
    MUST(expected == std::string(buffer.get(), expected.size()));
    MUST(buffer[expected.size()] == '\0');
}

} // namespace

FUZZ_SETUP
{
    return 0;
}

FUZZ_TARGET
{
    FuzzedDataProvider input(data, size);
    const auto room = input.ConsumeIntegralInRange<std::size_t>(1, 300);
    const auto number = input.ConsumeFloatingPointInRange(-1e30, 1e30);
    const std::string head = input.ConsumeRandomLengthString(20);
    std::string argument = input.ConsumeRandomLengthString(input.ConsumeBool() ? 40 : 3000);
    argument = argument.c_str();
    Words words{};
    const std::string format = nextFormat(input, words, argument);
    checkLine(room, head, words, number, format.c_str());
    return 0;
}
