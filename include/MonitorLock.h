// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "GorvApi.h"

class Monitor;

/// Holds one level of a Monitor's lock and gives it back when it goes out of scope.
///
/// Made by Monitor::acquireLock(). A guard belongs to the thread that took the lock. Neither copied nor
/// moved.
class GORV_API MonitorLock {
public:
    /// Adopt one level of @p monitor's lock that the calling thread already holds. Does not lock. The monitor
    /// must outlive the guard.
    explicit MonitorLock(Monitor& monitor);

    /// Release the bound monitor's lock unless releaseLock() was called.
    virtual ~MonitorLock();

    MonitorLock(const MonitorLock&) = delete;
    MonitorLock& operator=(const MonitorLock&) = delete;

    /// Release one level of the bound monitor's lock now; the destructor then releases nothing. Each call
    /// releases one level: call it once.
    void releaseLock();

    /// Bind the guard to @p monitor. Locks and releases nothing: a caller that rebinds a guard which still
    /// holds a lock takes care of both monitors itself.
    void setMonitor(Monitor& monitor);

private:
    Monitor* m_monitor; // not owned
    int m_released;     // 0 while the lock is held
};
