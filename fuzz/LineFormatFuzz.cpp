// SPDX-License-Identifier: BSD-3-Clause
// Lines of the log, with formats and arguments of any kind, against vsnprintf.

#include "log/LineFormat.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fuzzer/FuzzedDataProvider.h>
#include <memory>
#include <string>

namespace {

/// The arguments of a message: every integer and pointer fills a word.
using Words = std::array<std::uintptr_t, 8>;

/// A conversion and the word that it takes. Others than the plain ones are left to printf.
std::string nextConversion(FuzzedDataProvider& input, std::uintptr_t& word, const std::string& argument)
{
    static const char* const s_plain[] = {"%d", "%i", "%u", "%x", "%s"};
    static const char* const s_others[] = {"%5d", "%-+d", "%.3s", "%#x", "%c", "%p", "%hhd", "%ld", "%lc"};
    const std::string text =
        input.ConsumeBool() ? input.PickValueInArray(s_others) : input.PickValueInArray(s_plain);
    if (text.back() != 's')
        word = input.ConsumeIntegral<std::uintptr_t>();
    else if (input.ConsumeBool())
        word = reinterpret_cast<std::uintptr_t>(argument.c_str());
    return text;
}

std::string nextFormat(FuzzedDataProvider& input, Words& words, const std::string& argument)
{
    static const char* const s_between[] = {"", " ", "text", "%%"};
    static const char* const s_ends[] = {"", "\n", "%", "%!"}; // printf refuses two of them
    std::string format;
    auto* word = words.begin();
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (input.ConsumeBool())
            format += nextConversion(input, *word++, argument);
        format += input.PickValueInArray(s_between);
    }
    return format + input.PickValueInArray(s_ends);
}

void checkLine(std::size_t size, const std::string& head, const char* format, ...)
{
    va_list args, again;
    va_start(args, format);
    va_copy(again, args);
    std::string expected = head.substr(0, size - 1);
    const std::size_t room = size - expected.size();
    const std::unique_ptr<char[]> message(new char[room]());
    const int wanted = std::vsnprintf(message.get(), room, format, args);
    // A message that can't be finished ends at the first zero byte.
    expected.append(message.get(), wanted < 0 ? std::strlen(message.get())
                                              : std::min(static_cast<std::size_t>(wanted), room - 1));

    const std::unique_ptr<char[]> buffer(new char[size]); // with nothing behind it
    std::memset(buffer.get(), '~', size);
    LineFormat line(buffer.get(), size);
    line.append(head);
    line.appendMessage(format, again);
    va_end(again);
    va_end(args);
    if (std::memcmp(buffer.get(), expected.c_str(), expected.size() + 1) != 0) {
        std::fprintf(stderr, "expected: %s\n     got: %s\n", expected.c_str(), buffer.get());
        std::abort(); // a crash: the input is kept
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    const auto room = input.ConsumeIntegralInRange<std::size_t>(1, 300);
    const std::string head = input.ConsumeRandomLengthString(20);
    Words words{};
    std::string argument = input.ConsumeRandomLengthString(400);
    argument = argument.c_str();
    const std::string format = nextFormat(input, words, argument);
    checkLine(room, head, format.c_str(), words[0], words[1], words[2], words[3], words[4], words[5],
              words[6], words[7]);
    return 0;
}
