// SPDX-License-Identifier: BSD-3-Clause
#pragma once

/// @file
/// The lock of the library.

#include "GorvApi.h"
#include "MonitorLock.h"

#include <chrono>
#include <ctime>
#include <pthread.h>

class AComponentLog;
class ALog;

/// The id that the most recently constructed Monitor took. Starts at 1; the library's own two monitors take
/// ids 2 and 3 when it is loaded. Ids are unique; nothing depends on it.
extern GORV_API int NextMonitorId;

/// A recursive lock with a condition variable.
///
/// Any thread may call any operation. The thread that holds the lock may take it again; every lock needs its
/// own release. No operation but construction throws. Neither copied nor moved.
///
/// @code
/// MonitorLock lock = monitor.acquireLock();  // released at the end of the scope
/// const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
/// while (queue.empty() && monitor.waitUntil(end)) {
/// }
/// @endcode
///
/// @include examples/reference/Monitor.cpp
/// @verbinclude examples/reference/Monitor.out
class GORV_API Monitor {
public:
    /// Throws std::bad_alloc when memory runs out.
    Monitor();

    /// The lock must be free and nobody may be waiting.
    virtual ~Monitor();

    Monitor(const Monitor&) = delete;
    Monitor& operator=(const Monitor&) = delete;

    /// Lets the monitor's reports reach @p log, which stays the caller's and must outlive the monitor.
    void setLog(ALog& log);

    /// Take the lock, blocking until it is free. Pair each call with releaseLock().
    void fastLock();

    /// Give one level of the lock back. Only the thread that holds it may call this.
    void releaseLock();

    /// Take the lock as fastLock() does.
    /// @return the guard that holds it; letting the guard go at once releases the lock at once.
    MonitorLock acquireLock();

    /// Wait, without a limit, until notify() wakes this thread. The caller holds the lock exactly once; it is
    /// free during the wait and held again on return. Wake-ups can be spurious: check your condition again.
    void wait();

    /// Wait as wait() does, but no longer than @p timeoutMs milliseconds (less than 0 counts as 0) of the
    /// realtime clock. The caller can't tell a time-out from a wake-up. An unexpected result of the system's
    /// wait is printed through the monitor's log as " pthread_cond_timedwait returned: %i\n".
    void wait(int timeoutMs);

    /// Wait as wait() does, but no longer than until @p end. Neither further wake-ups nor a change of the
    /// system's time stretch it.
    /// @return true after a wake-up, also a spurious one; false when the time is over.
    bool waitUntil(std::chrono::steady_clock::time_point end)
    {
        const std::chrono::seconds second(1);
        const std::chrono::nanoseconds time = end.time_since_epoch();
        const timespec deadline = {time / second, (time % second).count()};
        // The clock is that of this wait alone, whichever the condition was made for.
        return pthread_cond_clockwait(&m_condition, &m_mutex, CLOCK_MONOTONIC, &deadline) == 0;
    }

    /// Wake at most one waiting thread. May be called with or without the lock.
    void notify();

    /// Wake all threads that are waiting. May be called with or without the lock.
    void notifyAll() { pthread_cond_broadcast(&m_condition); }

private:
    pthread_mutex_t m_mutex;
    pthread_cond_t m_condition;
    int m_id;
    AComponentLog* m_log; // owned
};
