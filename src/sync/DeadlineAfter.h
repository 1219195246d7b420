// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <algorithm>
#include <ctime>

/// Returns the time @p timeoutMs milliseconds, of which less than 0 counts as 0, after @p now.
inline timespec deadlineAfter(timespec now, int timeoutMs)
{
    constexpr int kMillisecondsPerSecond = 1000;
    constexpr long kNanosecondsPerMillisecond = 1'000'000, kNanosecondsPerSecond = 1'000'000'000;
    timeoutMs = std::max(timeoutMs, 0);
    now.tv_sec += timeoutMs / kMillisecondsPerSecond;
    now.tv_nsec += timeoutMs % kMillisecondsPerSecond * kNanosecondsPerMillisecond;
    if (now.tv_nsec >= kNanosecondsPerSecond) {
        now.tv_nsec -= kNanosecondsPerSecond;
        ++now.tv_sec;
    }
    return now;
}
