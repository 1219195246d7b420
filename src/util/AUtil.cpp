// SPDX-License-Identifier: BSD-3-Clause
#include "AUtil.h"

#include "base/CancelBlock.h"
#include "base/FileDescriptor.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <new>

namespace {

using KeyWords = std::array<std::uint32_t, 4>;

constexpr std::size_t kKeyLength = 32;
constexpr std::uint32_t kLastKeyCounter = 65535;

constinit std::atomic<std::uint32_t> s_keyCounter = 0;

/// A delete expression would tell the allocator a size of one character, which strings seldom have.
void releaseString(const char* text)
{
    ::operator delete(const_cast<char*>(text));
}

bool readRandomWords(KeyWords& words)
{
    const FileDescriptor device(::open("/dev/urandom", O_RDONLY | O_CLOEXEC));
    return std::all_of(words.begin(), words.end(), [&](std::uint32_t& word) {
        return ::read(device.get(), &word, sizeof word) == sizeof word; // which no signal interrupts
    });
}

void makePseudoRandomWords(KeyWords& words)
{
    const std::uint32_t counter = s_keyCounter.load(std::memory_order_relaxed);
    std::srand(static_cast<std::uint32_t>(::getpid()) + static_cast<std::uint32_t>(std::time(nullptr)) +
               counter);
    for (std::uint32_t& word : words) {
        word = static_cast<std::uint32_t>(std::rand());
        std::srand(word);
    }
    s_keyCounter.store(counter >= kLastKeyCounter ? 0 : counter + 1, std::memory_order_relaxed);
}

} // namespace

char* AUtil::getEnv(const char* name, const char* defaultValue)
{
    if (char* value = name == nullptr ? nullptr : std::getenv(name))
        return value;
    return defaultValue == nullptr ? nullptr : ::strdup(defaultValue);
}

void AUtil::clearStringArray(std::vector<char*>& strings)
{
    for (const char* text : strings)
        releaseString(text);
    strings.clear();
}

void AUtil::clearStringArray(std::vector<const char*>& strings)
{
    for (const char* text : strings)
        releaseString(text);
    strings.clear();
}

std::string AUtil::generateRandomKey()
{
    const CancelBlock block;
    KeyWords words{};
    if (!readRandomWords(words))
        makePseudoRandomWords(words);
    char key[kKeyLength + 1];
    std::snprintf(key, sizeof key, "%08x%08x%08x%08x", words[0], words[1], words[2], words[3]);
    return key;
}
