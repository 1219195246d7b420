// SPDX-License-Identifier: BSD-3-Clause
// Prints the table of ratios. usage: gorv_bench [FILTER]   only the figures whose name contains FILTER

#include "Compare.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kRounds = 15;
constexpr double kSecondsARound = 0.02;

std::vector<Comparison> s_comparisons;
FILE* s_table = stdout;

std::string benchmarkName(std::size_t index, const char* side)
{
    return "c" + std::to_string(index) + "." + side;
}

/// Collects the time of one iteration of each round instead of printing it.
class Collector : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration)
                continue;
            if (run.error_occurred)
                std::fprintf(s_table, "%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
            m_times[run.run_name.function_name].push_back(run.GetAdjustedRealTime());
        }
    }
    double median(const std::string& name)
    {
        std::vector<double>& times = m_times[name];
        if (times.empty())
            return 0;
        std::sort(times.begin(), times.end());
        return times[times.size() / 2];
    }

private:
    std::map<std::string, std::vector<double>> m_times;
};

/// Returns whether the figure meets its goal.
bool measure(std::size_t index)
{
    const Comparison& comparison = s_comparisons[index];
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector, "^" + benchmarkName(index, "") + ".*");
    const double ours = collector.median(benchmarkName(index, "ours"));
    const double theirs = collector.median(benchmarkName(index, "theirs"));
    const double ratio = theirs == 0 ? 0 : ours / theirs;
    const bool met = ratio > 0 && ratio <= comparison.atMost;
    std::fprintf(s_table, "| %-44s | %-46s | %9.1f | %9.1f | %5.2f | %5.2f | %s\n", comparison.what.c_str(),
                 comparison.against.c_str(), ours, theirs, ratio, comparison.atMost,
                 met ? "  |" : "MISSED |");
    std::fflush(s_table);
    return met;
}

} // namespace

void compare(const Comparison& comparison, const Body& ours, const Body& theirs, int threads)
{
    const std::size_t index = s_comparisons.size();
    s_comparisons.push_back(comparison);
    for (const auto& [side, body] : {std::pair<const char*, Body>{"ours", ours}, {"theirs", theirs}}) {
        benchmark::RegisterBenchmark(benchmarkName(index, side).c_str(), body)
            ->Repetitions(kRounds)
            ->MinTime(kSecondsARound)
            ->Threads(threads)
            ->UseRealTime();
    }
}

int main(int argc, char** argv)
{
    std::string interleave = "--benchmark_enable_random_interleaving=true";
    char* options[] = {argv[0], interleave.data(), nullptr};
    int count = 2;
    benchmark::Initialize(&count, options);
    const std::string filter = argc > 1 ? argv[1] : "";

    registerLogComparisons();
    registerSyncComparisons();
    registerAuthComparisons();
    registerStreamComparisons();
    registerUtilComparisons();

    // What the measured calls print themselves goes nowhere.
    s_table = ::fdopen(::dup(STDOUT_FILENO), "w");
    if (s_table == nullptr || std::freopen("/dev/null", "w", stdout) == nullptr)
        return 1;
    std::fprintf(s_table, "| %-44s | %-46s | %9s | %9s | %5s | %5s |\n", "what", "held against", "ours, ns",
                 "theirs", "ratio", "goal");
    std::fputs("|---|---|---|---|---|---|\n", s_table);
    int missed = 0;
    for (std::size_t i = 0; i < s_comparisons.size(); ++i) {
        if (s_comparisons[i].what.find(filter) != std::string::npos && !measure(i))
            ++missed;
    }
    std::fprintf(s_table, "\n%d of %zu figures miss their goal\n", missed, s_comparisons.size());
    return 0;
}
