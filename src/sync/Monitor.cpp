// SPDX-License-Identifier: BSD-3-Clause
#include "Monitor.h"

#include "AComponentLog.h"
#include "sync/DeadlineAfter.h"

#include <atomic>
#include <cerrno>
#include <ctime>
#include <sys/time.h>

int NextMonitorId = 1;

namespace {

constexpr long kNanosecondsPerMicrosecond = 1'000;

void initialiseRecursive(pthread_mutex_t& mutex)
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

} // namespace

Monitor::Monitor()
{
    initialiseRecursive(m_mutex);
    pthread_cond_init(&m_condition, nullptr);
    m_id = std::atomic_ref<int>(NextMonitorId).fetch_add(1, std::memory_order_relaxed) + 1;
    m_log = new AComponentLog();
}

Monitor::~Monitor()
{
    // The condition holds nothing to release, and destroying it would block for ever on a thread that still
    // waits, as one may when a process exits.
    pthread_mutex_destroy(&m_mutex);
    delete m_log;
}

void Monitor::setLog(ALog& log)
{
    m_log->setBaseLog(log);
}

void Monitor::fastLock()
{
    pthread_mutex_lock(&m_mutex);
}

void Monitor::releaseLock()
{
    pthread_mutex_unlock(&m_mutex);
}

MonitorLock Monitor::acquireLock()
{
    pthread_mutex_lock(&m_mutex);
    return MonitorLock(*this);
}

void Monitor::wait()
{
    pthread_cond_wait(&m_condition, &m_mutex);
}

void Monitor::wait(int timeoutMs)
{
    timeval now{};
    gettimeofday(&now, nullptr);
    const timespec deadline =
        deadlineAfter({now.tv_sec, now.tv_usec * kNanosecondsPerMicrosecond}, timeoutMs);
    const int result = pthread_cond_timedwait(&m_condition, &m_mutex, &deadline);
    if (result != 0 && result != EINTR && result != ETIMEDOUT)
        m_log->print(" pthread_cond_timedwait returned: %i\n", result);
}

void Monitor::notify()
{
    pthread_cond_signal(&m_condition);
}
