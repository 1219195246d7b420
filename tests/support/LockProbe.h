#pragma once

#include "Monitor.h"

#include <chrono>
#include <future>
#include <thread>

/// Another thread that takes a monitor's lock as soon as it is free, and gives it back at once.
class LockProbe {
public:
    explicit LockProbe(Monitor& monitor)
        : m_locked(m_promise.get_future()), m_thread([this, &monitor] {
              monitor.fastLock();
              m_promise.set_value();
              monitor.releaseLock();
          }) {}
    ~LockProbe() { m_thread.join(); }
    LockProbe(const LockProbe&) = delete;
    LockProbe& operator=(const LockProbe&) = delete;

    bool gotIt() const { return m_locked.wait_for(std::chrono::seconds(20)) == std::future_status::ready; }
    bool isKeptOut() const { return m_locked.wait_for(std::chrono::milliseconds(50)) == std::future_status::timeout; }

private:
    std::promise<void> m_promise;
    std::future<void> m_locked;
    std::thread m_thread;
};
