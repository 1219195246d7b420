// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "Monitor.h"

#include <chrono>
#include <future>

/// Another thread that takes a monitor's lock as soon as it is free, and gives it back at once.
class LockProbe {
public:
    explicit LockProbe(Monitor& monitor)
        : m_locked(std::async(std::launch::async, [&monitor] {
              monitor.fastLock();
              monitor.releaseLock();
          }))
    {}

    bool gotIt() const { return m_locked.wait_for(std::chrono::seconds(20)) == std::future_status::ready; }
    bool isKeptOut() const
    {
        return m_locked.wait_for(std::chrono::milliseconds(50)) == std::future_status::timeout;
    }

private:
    std::future<void> m_locked; // is waited for in the end
};
