// SPDX-License-Identifier: BSD-3-Clause
#include "support/LockProbe.h"
#include "support/OtherThread.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

TEST(MonitorTest, LockIsFreeOnlyAfterAsManyReleasesAsLocksAndAGuardReleasesOnce)
{
    Monitor monitor, other;
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
    const LockProbe probe(monitor);
    EXPECT_TRUE(probe.isKeptOut());
    monitor.releaseLock();
    EXPECT_TRUE(probe.isKeptOut());
    {
        MonitorLock rebound(monitor);
        other.fastLock();
        rebound.setMonitor(other); // releases the monitor bound last only
    }
    EXPECT_TRUE(LockProbe(other).gotIt());
    EXPECT_TRUE(probe.isKeptOut());
    monitor.releaseLock();
    EXPECT_TRUE(probe.gotIt());
}

TEST(MonitorTest, NotifyWakesOneWaiterAndATimedWaitEndsEarlyOrAtItsLimit)
{
    constexpr int kWaiters = 3;
    Monitor monitor;
    int waiting = 0;
    std::atomic<int> returned = 0;
    std::vector<std::jthread> threads;
    for (int i = 0; i < kWaiters; ++i) {
        threads.emplace_back([&, timed = i == 0] {
            const MonitorLock lock = monitor.acquireLock();
            ++waiting;
            if (timed)
                monitor.wait(3'600'000);
            else
                monitor.wait();
            ++returned;
        });
    }
    {
        const MonitorLock lock = monitor.acquireLock();
        do
            monitor.wait(10); // lets the others in
        while (waiting < kWaiters);
    }
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
    constexpr int kWaiters = 3;
    Monitor monitor;
    int waiting = 0, woken = 0;
    std::vector<std::jthread> threads;
    for (int i = 0; i < kWaiters; ++i) {
        threads.emplace_back([&] {
            const MonitorLock lock = monitor.acquireLock();
            ++waiting;
            woken += monitor.waitUntil(std::chrono::steady_clock::now() + 1h) ? 1 : 0;
        });
    }
    const auto end = std::chrono::steady_clock::now() + 100ms;
    {
        const MonitorLock lock = monitor.acquireLock();
        while (waiting < kWaiters)
            monitor.wait(1); // lets the others in
        while (monitor.waitUntil(end)) {
        }
        EXPECT_GE(std::chrono::steady_clock::now(), end);
        EXPECT_FALSE(monitor.waitUntil(end));
        EXPECT_FALSE(monitor.waitUntil({}));
        monitor.notifyAll();
    }
    threads.clear();
    EXPECT_EQ(woken, kWaiters);
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
        EXPECT_TRUE(LockProbe(monitor).gotIt());
    }
}

} // namespace
