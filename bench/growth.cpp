// SPDX-License-Identifier: BSD-3-Clause
// How each cost grows: a look-up with the logins, a hand-down with the components, a log line with the
// threads.

#include "AComponentLog.h"
#include "ALog.h"
#include "PAMHelper.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kRounds = 15;

double nanosecondsOf(const std::function<void()>& work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
}

double medianOf(const std::function<void()>& work)
{
    std::vector<double> times;
    for (int round = 0; round < kRounds; ++round)
        times.push_back(nanosecondsOf(work));
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

void growLookUps()
{
    std::printf("\n| logins | instanceForSessionId, ns | instanceForKEPId, ns |\n|---|---|---|\n");
    std::vector<std::unique_ptr<PAMHelper>> helpers;
    std::vector<std::string> ids;
    for (const std::size_t count : {10U, 100U, 1'000U, 10'000U, 100'000U}) {
        while (helpers.size() < count) {
            ids.push_back("session-" + std::to_string(helpers.size() * 7919 % 1'000'003));
            helpers.push_back(std::make_unique<PAMHelper>(nullptr, nullptr));
            helpers.back()->setSessionId(ids.back());
        }
        constexpr std::size_t kLookUps = 20'000;
        const double byText = medianOf([&] {
            for (std::size_t i = 0; i < kLookUps; ++i)
                PAMHelper::instanceForSessionId(ids[i * 17 % count]);
        });
        const double byNumber = medianOf([] { PAMHelper::instanceForKEPId(1); }); // nobody's: the whole walk
        std::printf("| %zu | %.0f | %.0f |\n", count, byText / kLookUps, byNumber);
    }
}

void growHandDown()
{
    std::printf("\n| components | setBaseLog, ns a component |\n|---|---|\n");
    for (const std::size_t count : {10U, 100U, 1'000U, 10'000U}) {
        ALog log("growth");
        AComponentLog root("root");
        std::vector<std::unique_ptr<AComponentLog>> children;
        for (std::size_t i = 0; i < count; ++i) {
            children.push_back(std::make_unique<AComponentLog>("child"));
            (i < 10 ? root : *children[i / 10]).addChildLog(*children[i]); // ten below each
        }
        std::printf("| %zu | %.1f |\n", count,
                    medianOf([&] { root.setBaseLog(log); }) / static_cast<double>(count));
    }
}

void growThreads()
{
    std::printf("\n| threads | lines a second, one log | lines a second, a log each |\n|---|---|---|\n");
    for (const int count : {1, 2, 4, 8}) {
        constexpr int kLines = 20'000;
        const auto linesASecond = [count](bool shared) {
            std::vector<FILE*> files;
            std::vector<std::unique_ptr<ALog>> logs;
            for (int i = 0; i < (shared ? 1 : count); ++i) {
                files.push_back(std::tmpfile());
                logs.push_back(std::make_unique<ALog>("growth", files.back()));
            }
            const double nanoseconds = nanosecondsOf([&] {
                std::vector<std::thread> threads;
                for (int i = 0; i < count; ++i) {
                    ALog& log = *logs[static_cast<std::size_t>(shared ? 0 : i)];
                    threads.emplace_back([&log] {
                        for (int line = 0; line < kLines; ++line)
                            log.print("session %d of %s\n", line, "alice");
                    });
                }
                for (auto& thread : threads)
                    thread.join();
            });
            for (FILE* file : files)
                std::fclose(file);
            return 1e9 * kLines * count / nanoseconds;
        };
        std::printf("| %d | %.0f | %.0f |\n", count, linesASecond(true), linesASecond(false));
    }
}

} // namespace

int main()
{
    growLookUps();
    growHandDown();
    growThreads();
}
