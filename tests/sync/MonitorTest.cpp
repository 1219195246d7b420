#include "ALog.h"
#include "support/LockProbe.h"

#include <atomic>
#include <gtest/gtest.h>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

struct MonitorTest : testing::Test {
    Monitor m_monitor;
};

TEST(MonitorIdTest, FirstMonitorOfAProgramFollowsTheTwoOfTheLibrary) {
    EXPECT_EQ(NextMonitorId, 3);
    const Monitor first;
    EXPECT_EQ(NextMonitorId, 4);
    const ALog log("holds one monitor of its own");
    EXPECT_EQ(NextMonitorId, 5);
}

TEST_F(MonitorTest, LockIsFreeOnlyAfterAsManyReleasesAsLocksAndAGuardReleasesOnce) {
    Monitor other;
    m_monitor.fastLock();
    m_monitor.fastLock();
    {
        MonitorLock byCall = m_monitor.acquireLock();
        byCall.releaseLock();
    } // must not release the level below it
    { const MonitorLock byScope = m_monitor.acquireLock(); }
    m_monitor.acquireLock(); // a dropped guard holds nothing
    const LockProbe probe(m_monitor);
    EXPECT_TRUE(probe.isKeptOut());
    m_monitor.releaseLock();
    EXPECT_TRUE(probe.isKeptOut());
    {
        MonitorLock rebound(m_monitor);
        other.fastLock();
        rebound.setMonitor(other); // releases the monitor bound last only
    }
    EXPECT_TRUE(LockProbe(other).gotIt());
    EXPECT_TRUE(probe.isKeptOut());
    m_monitor.releaseLock();
    EXPECT_TRUE(probe.gotIt());
}

TEST_F(MonitorTest, TimedWaitEndsNoSoonerThanItsLimit) {
    for (const int timeoutMs : {1200, 30}) {
        const MonitorLock lock = m_monitor.acquireLock();
        const auto start = Clock::now();
        m_monitor.wait(timeoutMs);
        EXPECT_GE(Clock::now() - start + 2ms, std::chrono::milliseconds(timeoutMs));
    }
}

TEST_F(MonitorTest, NotifyWakesOneWaiterAndEndsATimedWaitEarly) {
    constexpr int kWaiters = 3;
    std::atomic<int> waiting = 0, tickets = 0, woken = 0;
    std::atomic<int> returned = 0; // from a wait
    std::vector<std::thread> threads;
    for (int i = 0; i < kWaiters; ++i) {
        threads.emplace_back([&, timed = i == 0] {
            const MonitorLock lock = m_monitor.acquireLock();
            ++waiting;
            while (tickets == 0) {
                if (timed) m_monitor.wait(3'600'000);
                else m_monitor.wait();
                ++returned;
            }
            --tickets;
            ++woken;
        });
    }
    while (waiting < kWaiters) std::this_thread::sleep_for(1ms);
    for (int round = 1; round <= kWaiters; ++round) {
        {
            const MonitorLock lock = m_monitor.acquireLock(); // all of them are in the wait now
            tickets = 1;
            m_monitor.notify();
        }
        while (woken < round) std::this_thread::sleep_for(1ms);
        std::this_thread::sleep_for(20ms); // a second thread that was woken would have returned too
        EXPECT_EQ(returned, round);
    }
    for (auto& thread : threads) thread.join();
}

} // namespace
