// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <benchmark/benchmark.h>
#include <functional>
#include <sched.h>
#include <string>

/// One figure of the table: the time of ours over the time of theirs, and the goal it is held to.
struct Comparison {
    std::string what;
    std::string against;
    double atMost = 0;
};

using Body = std::function<void(benchmark::State&)>;

/// Registers both sides. They run in interleaved rounds, one comparison after another. With @p threads above
/// 1 each side runs on that many threads at once.
void compare(const Comparison& comparison, const Body& ours, const Body& theirs, int threads = 1);

/// Keeps the thread on one of the cores that it may use, taken in turn by @p number, for one scope. Left
/// alone, the scheduler at times keeps all threads on one core, where nothing contends.
class Pinned {
public:
    explicit Pinned(int number)
    {
        ::sched_getaffinity(0, sizeof m_before, &m_before);
        int turn = number % CPU_COUNT(&m_before), core = 0;
        while (!CPU_ISSET(core, &m_before) || turn-- > 0)
            ++core;
        cpu_set_t only;
        CPU_ZERO(&only);
        CPU_SET(core, &only);
        ::sched_setaffinity(0, sizeof only, &only);
    }
    ~Pinned() { ::sched_setaffinity(0, sizeof m_before, &m_before); }

    Pinned(const Pinned&) = delete;
    Pinned& operator=(const Pinned&) = delete;

private:
    cpu_set_t m_before;
};

/// Each file registers its own comparisons.
void registerLogComparisons();
void registerSyncComparisons();
void registerAuthComparisons();
void registerStreamComparisons();
void registerUtilComparisons();
