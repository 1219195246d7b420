#include "ALog.h"
#include "support/Files.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <sys/time.h>

namespace {

int s_result = 0;
timeval s_now{};
timespec s_deadline{};

} // namespace

// The system's wait and clock, as the monitor sees them.
extern "C" __attribute__((visibility("default"))) int pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*,
                                                                             const timespec* deadline) {
    s_deadline = *deadline;
    return s_result;
}

extern "C" __attribute__((visibility("default"))) int gettimeofday(timeval* now, void*) noexcept {
    *now = s_now;
    return 0;
}

namespace {

TEST(TimedWaitTest, OnlyUnexpectedResultsAreLogged) {
    CapturedStream output(stdout);
    ALog log("box", stdout);
    log.setShowTimestamp(false);
    Monitor monitor;
    s_result = EINVAL;
    monitor.wait(0); // goes nowhere without a log
    monitor.setLog(log);
    for (const int result : {0, EINTR, ETIMEDOUT, EINVAL, EPERM}) {
        s_result = result;
        monitor.wait(10);
    }
    EXPECT_EQ(output.text(), "box - pthread_cond_timedwait returned: 22\n"
                             "box - pthread_cond_timedwait returned: 1\n");
}

TEST(TimedWaitTest, DeadlineCarriesNanosecondsIntoSeconds) {
    const struct {
        timeval now;
        int timeoutMs;
        timespec deadline;
    } cases[] = {
        {{100, 500'000}, 1500, {102, 0}},
        {{100, 999'999}, 999, {101, 998'999'000}},
        {{100, 0}, -5, {100, 0}},
        {{100, 400'000}, 2'147'483'647, {2'147'584, 47'000'000}},
    };
    Monitor monitor;
    for (const auto& test : cases) {
        s_now = test.now;
        monitor.wait(test.timeoutMs);
        EXPECT_EQ(s_deadline.tv_sec, test.deadline.tv_sec) << test.timeoutMs;
        EXPECT_EQ(s_deadline.tv_nsec, test.deadline.tv_nsec) << test.timeoutMs;
    }
}

} // namespace
