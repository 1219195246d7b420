// SPDX-License-Identifier: BSD-3-Clause
#include "AThread.h"
#include "faults/Walk.h"

#include <gtest/gtest.h>

namespace {

/// A thread does its first round and pauses, until it is asked to stop.
struct ThreadRun : Road {
    struct Poller : AThread {
        void run() override
        {
            do {
                const MonitorLock lock = m_monitor.acquireLock();
                ++m_rounds;
                m_monitor.notifyAll();
            } while (pauseFor(3'600'000));
        }
        Monitor m_monitor;
        int m_rounds = 0;
    };

    void walk() override
    {
        const auto now = std::chrono::steady_clock::now();
        MonitorLock lock = m_poller.m_monitor.acquireLock();
        m_poller.m_monitor.waitUntil(now + std::chrono::milliseconds(1)); // before anybody notifies
        m_poller.start();
        if (!m_poller.isJoinable())
            return;
        while (m_poller.m_rounds == 0 && m_poller.m_monitor.waitUntil(now + std::chrono::hours(1))) {
        }
        lock.releaseLock();
        m_poller.stopThread();
    }
    std::string arrive() override
    {
        const bool wasThere = m_poller.isJoinable();
        m_poller.stopThread();
        m_poller.join();
        return wasThere ? std::to_string(m_poller.m_rounds) : "no thread";
    }
    std::vector<Intrusion> intrusions() override
    {
        return {{{[this] { m_poller.stopThread(); }}}};
    }

    Poller m_poller;
};

TEST(ThreadWalkTest, ThreadIsThereOrNotAndEndsWhateverHappens)
{
    walkEachCall({"thread",
                  [] { return std::make_unique<ThreadRun>(); },
                  "1",
                  {{"pthread_create", "no thread"}},
                  {{"pthread_cond_clockwait", "1|no thread"}}});
}

} // namespace
