// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <langinfo.h>
#include <mutex>

/// What the C library does for a line of a log when nothing is left to be put together: the time zone, the
/// clock, the locale, a recursive mutex and the stream. A line that keeps to them all costs hardly less.
class ReadyLine {
public:
    explicit ReadyLine(FILE* stream) : m_stream(stream) {}

    void put(const char* line)
    {
        benchmark::DoNotOptimize(std::getenv("TZ"));
        benchmark::DoNotOptimize(std::time(nullptr));
        benchmark::DoNotOptimize(::nl_langinfo(T_FMT));
        const std::lock_guard<std::recursive_mutex> lock(m_mutex);
        std::fputs(line, m_stream);
    }

private:
    FILE* m_stream;
    std::recursive_mutex m_mutex;
};
