// SPDX-License-Identifier: BSD-3-Clause
// What it costs a process to have the library: the memory of its own after loading, and the time of dlopen
// held against an empty library with the same dependencies. usage: gorv_load LIBRARY EMPTY

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <dlfcn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kRounds = 41;

/// The KiB that the mappings of @p file no longer share with the file itself.
long privateKiB(const std::string& file)
{
    FILE* const maps = std::fopen("/proc/self/smaps", "r");
    char line[512];
    bool inside = false;
    long total = 0;
    while (std::fgets(line, sizeof line, maps) != nullptr) {
        const std::string text = line;
        long size = 0;
        if (std::isxdigit(static_cast<unsigned char>(line[0])) != 0 && text.find('-') < text.find(' '))
            inside = text.find(file) != std::string::npos;
        else if (inside && std::sscanf(line, "Anonymous: %ld", &size) == 1)
            total += size;
    }
    std::fclose(maps);
    return total;
}

/// The time of one dlopen in a process of its own, where nothing of it is loaded yet.
double loadMicroseconds(const char* library, long* memory)
{
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) != 0)
        return 0;
    struct Result {
        double microseconds;
        long memory;
    } result{};
    if (::fork() == 0) {
        const auto start = std::chrono::steady_clock::now();
        const void* const handle = ::dlopen(library, RTLD_NOW | RTLD_LOCAL);
        result.microseconds =
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
        result.memory = privateKiB("libgorvUtil");
        if (handle == nullptr)
            std::fprintf(stderr, "%s\n", ::dlerror());
        ::_exit(::write(ends[1], &result, sizeof result) == sizeof result ? 0 : 1);
    }
    const bool arrived = ::read(ends[0], &result, sizeof result) == sizeof result;
    ::wait(nullptr);
    ::close(ends[0]);
    ::close(ends[1]);
    if (memory != nullptr)
        *memory = result.memory;
    return arrived ? result.microseconds : 0;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
        return 2;
    std::vector<double> ours;
    std::vector<double> empty;
    long memory = 0;
    for (int round = 0; round < kRounds; ++round) {
        ours.push_back(loadMicroseconds(argv[1], &memory));
        empty.push_back(loadMicroseconds(argv[2], nullptr));
    }
    std::printf("private memory after loading: %ld KiB\n", memory);
    std::printf("dlopen: %.0f us, an empty library with the same dependencies %.0f us: %.2f\n", median(ours),
                median(empty), median(ours) / median(empty));
    return 0;
}
