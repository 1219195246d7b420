#pragma once

#include <benchmark/benchmark.h>
#include <functional>
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

/// Each file registers its own comparisons.
void registerLogComparisons();
void registerSyncComparisons();
void registerAuthComparisons();
void registerStreamComparisons();
void registerUtilComparisons();
