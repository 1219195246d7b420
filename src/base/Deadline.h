// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <algorithm>
#include <climits>
#include <ctime>

/// When a time-out ends, on the clock that nobody sets. With less than 0 milliseconds it never does.
class Deadline {
public:
    explicit Deadline(long long milliseconds)
        : m_end(milliseconds < 0 ? kNever : now() + milliseconds * kMillisecond)
    {}

    /// The end of the first of @p parts equal ones.
    Deadline share(int parts) const
    {
        Deadline part(*this);
        if (m_end != kNever)
            part.m_end -= (m_end - now()) / parts * (parts - 1);
        return part;
    }

    /// What is left for poll, in milliseconds; -1 is for ever.
    int left() const
    {
        if (m_end == kNever)
            return -1;
        const long long milliseconds = (m_end - now() + kMillisecond - 1) / kMillisecond;
        return static_cast<int>(std::clamp(milliseconds, 0LL, static_cast<long long>(INT_MAX)));
    }

private:
    static constexpr long long kNever = LLONG_MAX; // all in nanoseconds
    static constexpr long long kMillisecond = 1'000'000;
    static constexpr long long kSecond = 1'000'000'000;

    static long long now()
    {
        timespec time{};
        ::clock_gettime(CLOCK_MONOTONIC, &time);
        return time.tv_sec * kSecond + time.tv_nsec;
    }

    long long m_end;
};
