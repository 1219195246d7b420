// SPDX-License-Identifier: BSD-3-Clause
#include "ALog.h"
#include "support/Files.h"
#include "support/Interposed.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <sys/time.h>

static int s_result = 0;
static timeval s_now{};
static timespec s_deadline{};

// The system's wait and clock, as the monitor sees them.
INTERPOSED int pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*, const timespec* deadline)
{
    s_deadline = *deadline;
    return s_result;
}

INTERPOSED int pthread_cond_clockwait(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*)
{
    return s_result;
}

INTERPOSED int gettimeofday(timeval* now, void*) noexcept
{
    *now = s_now;
    return 0;
}

namespace {

TEST(MonitorTimedWaitTest, OnlyUnexpectedResultsAreLogged)
{
    CapturedStream output(stdout);
    ALog log("box", stdout);
    log.setShowTimestamp(false);
    Monitor monitor;
    s_result = EINVAL;
    monitor.wait(0); // goes nowhere without a log
    monitor.setLog(log);
    std::string woken;
    for (const int result : {0, EINTR, ETIMEDOUT, EINVAL, EPERM}) {
        s_result = result;
        monitor.wait(10);
        woken += monitor.waitUntil({}) ? "woken " : "not ";
    }
    EXPECT_EQ(output.text(), "box - pthread_cond_timedwait returned: 22\n"
                             "box - pthread_cond_timedwait returned: 1\n");
    EXPECT_EQ(woken, "woken not not not not ");
}

TEST(MonitorTimedWaitTest, DeadlineCarriesNanosecondsIntoSeconds)
{
    const std::tuple<timeval, int, timespec> cases[] = {
        {{100, 500'000}, 1500, {102, 0}},
        {{100, 0}, -5, {100, 0}},
        {{100, 400'000}, 2'147'483'647, {2'147'584, 47'000'000}},
    };
    Monitor monitor;
    for (const auto& [now, timeoutMs, deadline] : cases) {
        s_now = now;
        monitor.wait(timeoutMs);
        EXPECT_EQ(s_deadline.tv_sec, deadline.tv_sec) << timeoutMs;
        EXPECT_EQ(s_deadline.tv_nsec, deadline.tv_nsec) << timeoutMs;
    }
}

} // namespace
