// SPDX-License-Identifier: BSD-3-Clause
#include "Monitor.h"
#include "support/OtherThread.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

/// Takes the lock as soon as it is free, and gives it back at once.
OtherThread probe(Monitor& monitor)
{
    return OtherThread([&] { const MonitorLock lock = monitor.acquireLock(); });
}

TEST(MonitorTest, LockIsFreeOnlyAfterAsManyReleasesAsLocksAndAGuardReleasesOnce)
{
    Monitor monitor, another;
    monitor.fastLock();
    monitor.fastLock();
    {
        MonitorLock byCall = monitor.acquireLock();
        byCall.releaseLock();
    } // must not release the level below it
    {
        const MonitorLock byScope = monitor.acquireLock();
    }
    monitor.acquireLock(); // a dropped guard holds nothing
    const OtherThread other = probe(monitor);
    EXPECT_TRUE(other.isKeptWaiting());
    monitor.releaseLock();
    EXPECT_TRUE(other.isKeptWaiting());
    {
        MonitorLock rebound(monitor);
        another.fastLock();
        rebound.setMonitor(another); // releases the monitor bound last only
    }
    EXPECT_TRUE(probe(another).isDone());
    EXPECT_TRUE(other.isKeptWaiting());
    monitor.releaseLock();
    EXPECT_TRUE(other.isDone());
}

constexpr int kWaiters = 3;

/// Threads that are in a wait, with the lock, by now.
std::vector<std::jthread> waiters(Monitor& monitor, const std::function<void()>& wait)
{
    int waiting = 0;
    std::vector<std::jthread> threads;
    for (int i = 0; i < kWaiters; ++i)
        threads.emplace_back([&, wait] {
            const MonitorLock lock = monitor.acquireLock();
            ++waiting;
            wait();
        });
    const MonitorLock lock = monitor.acquireLock();
    do
        monitor.wait(1); // lets the others in
    while (waiting < kWaiters);
    return threads;
}

TEST(MonitorTest, NotifyWakesOneWaiterAndATimedWaitEndsEarly)
{
    Monitor monitor;
    int timed = 0;
    std::atomic<int> returned = 0;
    const auto threads = waiters(monitor, [&] {
        if (timed++ == 0)
            monitor.wait(3'600'000);
        else
            monitor.wait();
        ++returned;
    });
    for (int round = 1; round <= kWaiters; ++round) {
        monitor.notify();
        while (returned < round)
            std::this_thread::sleep_for(1ms);
        std::this_thread::sleep_for(20ms); // a second thread that was woken would have returned too
        EXPECT_EQ(returned, round);
    }
}

TEST(MonitorTest, NotifyAllWakesEveryWaiterAndOnlyTheEndOfTheTimeIsATimeOut)
{
    Monitor monitor;
    int woken = 0;
    auto threads =
        waiters(monitor, [&] { woken += monitor.waitUntil(std::chrono::steady_clock::now() + 1h) ? 1 : 0; });
    const auto end = std::chrono::steady_clock::now() + 100ms;
    {
        const MonitorLock lock = monitor.acquireLock();
        while (monitor.waitUntil(end)) {
        }
        EXPECT_GE(std::chrono::steady_clock::now(), end);
        EXPECT_FALSE(monitor.waitUntil({}));
        monitor.notifyAll();
    }
    threads.clear();
    EXPECT_EQ(woken, kWaiters);
}

TEST(MonitorTest, ProcessEndsThoughAThreadWaits)
{
    const auto end = [] {
        static Monitor s_monitor;
        const auto threads = waiters(s_monitor, [] { s_monitor.wait(); });
        std::exit(0);
    };
    EXPECT_EXIT(end(), testing::ExitedWithCode(0), "");
}

TEST(MonitorTest, CancelledWaitLeavesTheLockFree)
{
    Monitor monitor;
    const std::function<void()> waits[] = {[&] { monitor.wait(); }, [&] { monitor.wait(3'600'000); },
                                           [&] { monitor.waitUntil(std::chrono::steady_clock::now() + 1h); }};
    for (const auto& wait : waits) {
        EXPECT_FALSE(returnsWhenCancelled([&] {
            const MonitorLock lock = monitor.acquireLock();
            wait();
        }));
        EXPECT_TRUE(probe(monitor).isDone());
    }
}

} // namespace
