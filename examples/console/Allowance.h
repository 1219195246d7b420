// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "Limits.h"

#include <algorithm>
#include <atomic>
#include <mutex>

/// Turns: so many at once, then one every so often.
class Pace {
public:
    using Clock = std::chrono::steady_clock;

    Pace(int atOnce, Clock::duration interval) : m_interval(interval), m_slack(atOnce * interval) {}

    Clock::time_point next() const { return std::max(Clock::now(), m_due - m_slack); }
    void take() { m_due = std::max(m_due, Clock::now()) + m_interval; }
    void giveBack() { m_due -= m_interval; }
    bool isUnused() const { return m_due <= Clock::now(); }

private:
    Clock::duration m_interval;
    Clock::duration m_slack;
    Clock::time_point m_due;
};

/// What one user may cost the daemon, all his sessions together: so many of these at a time, so many
/// properties that weren't there before, and deeds at a pace. A deed is what the log tells of: a login, a
/// change, a call, a program. The log tells of each; who wants more of them waits. Safe from any thread.
class Allowance {
public:
    bool takeSession() { return takeOne(m_sessions, limits::kUserSessions); }
    void leaveSession() { --m_sessions; }
    bool takeProperty()
    {
        return takeOne(m_properties, limits::kUserProperties) && takeOne(s_properties, limits::kProperties);
    }
    void giveBackProperty()
    {
        --m_properties;
        --s_properties;
    }
    /// Returns when the deed may be done.
    Pace::Clock::time_point takeDeed()
    {
        const std::lock_guard guard(m_lock);
        const auto turn = m_deeds.next();
        m_deeds.take();
        return turn;
    }
    Pace::Clock::time_point nextDeed() const
    {
        const std::lock_guard guard(m_lock);
        return m_deeds.next();
    }
    /// Whether it is like a new one.
    bool isUnused() const
    {
        const std::lock_guard guard(m_lock);
        return m_sessions == 0 && m_properties == 0 && m_deeds.isUnused();
    }

private:
    /// Returns whether there was one left.
    static bool takeOne(std::atomic<int>& count, int most)
    {
        const bool isLeft = ++count <= most;
        count -= isLeft ? 0 : 1;
        return isLeft;
    }

    static inline std::atomic<int> s_properties = 0; // of all users

    std::atomic<int> m_sessions = 0;
    std::atomic<int> m_properties = 0;
    mutable std::mutex m_lock; // guards the deeds
    Pace m_deeds{limits::kDeedsAtOnce, limits::kDeedPace};
};
