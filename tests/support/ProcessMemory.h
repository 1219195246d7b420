#pragma once

#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

/// Looks for a secret in all that a process can write.
class ProcessMemory {
public:
    /// A text that stands in memory only where somebody asked for it.
    class Secret {
    public:
        template <std::size_t size>
        explicit Secret(const char (&text)[size]) {
            for (std::size_t i = 0; i + 1 < size; ++i) m_scrambled.push_back(static_cast<char>(text[i] ^ kMask));
        }
        std::string text() const {
            std::string result = m_scrambled;
            for (char& byte : result) byte = static_cast<char>(byte ^ kMask);
            return result;
        }
        bool isIn(const void* block, std::size_t size) const {
            const char *const begin = static_cast<const char*>(block), *const end = begin + size;
            const auto matches = [](char byte, char scrambled) { return (byte ^ kMask) == scrambled; };
            return std::search(begin, end, m_scrambled.begin(), m_scrambled.end(), matches) != end;
        }

    private:
        friend class ProcessMemory;
        static constexpr char kMask = 0x15;
        std::string m_scrambled;
    };

    static constexpr bool canBeSearched() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        return false;
#else
        return true;
#endif
    }

    /// Whether the second half of @p secret stands anywhere: freed memory may have lost its first bytes.
    static bool holds(const Secret& secret, const std::string& process = "self") {
        const std::string needle = secret.m_scrambled.substr(secret.m_scrambled.size() / 2);
        FILE* maps = std::fopen(("/proc/" + process + "/maps").c_str(), "r");
        const int memory = ::open(("/proc/" + process + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
        bool found = false;
        char line[512];
        while (!found && std::fgets(line, sizeof line, maps) != nullptr) {
            std::uintptr_t begin = 0, end = 0;
            char access[5] = {};
            if (std::sscanf(line, "%" SCNxPTR "-%" SCNxPTR " %4s", &begin, &end, access) == 3 && access[1] == 'w')
                found = regionHolds(memory, begin, end, needle);
        }
        std::fclose(maps);
        ::close(memory);
        return found;
    }

private:
    static bool regionHolds(int memory, std::uintptr_t begin, std::uintptr_t end, const std::string& needle) {
        std::vector<char> bytes(end - begin);
        const ssize_t count = ::pread(memory, bytes.data(), bytes.size(), static_cast<off_t>(begin));
        EXPECT_GT(count, 0) << "what can't be read can't be searched";
        for (char& byte : bytes) byte = static_cast<char>(byte ^ Secret::kMask); // no second copy is left behind
        const std::string_view text(bytes.data(), count < 0 ? 0 : static_cast<std::size_t>(count));
        return text.find(needle) != std::string_view::npos;
    }
};
