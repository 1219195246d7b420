// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

/// Looks for a secret in all that this process can write.
class ProcessMemory {
public:
    /// A text that stands in memory only where somebody asked for it.
    class Secret {
    public:
        explicit Secret(std::string_view text) : m_scrambled(scrambled(text)) {}
        std::string text() const { return scrambled(m_scrambled); }
        /// Looks for the second half: freed memory may have lost the first bytes.
        bool isIn(const void* block, std::size_t size) const
        {
            std::string half = scrambled(std::string_view(m_scrambled).substr(m_scrambled.size() / 2));
            const bool isHere = ::memmem(block, size, half.data(), half.size()) != nullptr;
            ::explicit_bzero(half.data(), half.size()); // before the next block is read
            return isHere;
        }

    private:
        static constexpr char kMask = 0x15;
        /// A scrambled text scrambled again is plain.
        static std::string scrambled(std::string_view text)
        {
            std::string result(text);
            for (char& byte : result)
                byte = static_cast<char>(byte ^ kMask);
            return result;
        }
        std::string m_scrambled;
    };

    static constexpr bool canBeSearched()
    {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        return false;
#else
        return true;
#endif
    }

    /// Whether it is in what the process can write and has touched.
    static bool holds(const Secret& secret)
    {
        bool found = false;
        std::ifstream maps("/proc/self/maps");
        const int memory = ::open("/proc/self/mem", O_RDONLY | O_CLOEXEC),
                  pagemap = ::open("/proc/self/pagemap", O_RDONLY | O_CLOEXEC);
        const auto size = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
        for (std::string line; std::getline(maps, line);) {
            std::uintptr_t begin = 0, end = 0;
            char access[5] = {};
            std::sscanf(line.c_str(), "%" SCNxPTR "-%" SCNxPTR " %4s", &begin, &end, access);
            if (access[1] != 'w')
                continue;
            std::vector<std::uint64_t> pages((end - begin) / size);
            readAll(pagemap, begin / size * sizeof pages[0], pages);
            for (auto last = pages.begin(), page = last;
                 (page = std::find_if(last, pages.end(), isThere)) != pages.end();) {
                last = std::find_if_not(page, pages.end(), isThere);
                std::vector<char> bytes(static_cast<std::size_t>(last - page) * size);
                readAll(memory, begin + static_cast<std::uintptr_t>(page - pages.begin()) * size, bytes);
                found = found || secret.isIn(bytes.data(), bytes.size());
                ::explicit_bzero(bytes.data(), bytes.size()); // no second copy is left behind
            }
        }
        ::close(memory);
        ::close(pagemap);
        return found;
    }

private:
    /// In memory or swapped out.
    static bool isThere(std::uint64_t page)
    {
        return page >> 62 != 0;
    }

    template <typename Element>
    static void readAll(int file, std::uintptr_t offset, std::vector<Element>& elements)
    {
        const std::size_t size = elements.size() * sizeof(Element);
        EXPECT_EQ(::pread(file, elements.data(), size, static_cast<off_t>(offset)), size)
            << "what can't be read can't be searched";
    }
};
