// SPDX-License-Identifier: BSD-3-Clause
#include "AThread.h"

#include "base/SharedField.h"
#include "sync/DeadlineAfter.h"

#include <cerrno>
#include <climits>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

/// Counts the requests to stop, of all objects: a pause sleeps for as long as it stays the same. It stands in
/// for a word in each object, whose layout has no room for one. A word that the kernel waits on, unlike a
/// condition, may be changed by a signal handler.
unsigned s_stopRequests = 0;

/// Which of 32 groups an object belongs to, so that a request doesn't wake everybody who pauses.
unsigned groupOf(const AThread* object)
{
    constexpr int kAlignment = 16, kGroups = 32;
    return 1U << reinterpret_cast<std::uintptr_t>(object) / kAlignment % kGroups;
}

/// The C library's header says that it throws nothing; a cancellation does.
extern "C" long cancellableSyscall(long number, ...) __asm__("syscall");

/// Returns false when the time is over. A cancellation acts here as in the C library's own waits; on its way
/// nothing may need to be destroyed.
bool sleepUntil(const timespec& end, unsigned requests, unsigned group)
{
    int type = 0;
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &type);
    const long result = cancellableSyscall(SYS_futex, &s_stopRequests, FUTEX_WAIT_BITSET_PRIVATE, requests,
                                           &end, nullptr, group);
    const bool isOver = result != 0 && errno == ETIMEDOUT;
    pthread_setcanceltype(type, nullptr);
    return !isOver;
}

} // namespace

AThread::AThread() : m_thread(0), m_attributes{}, m_stopRequested(false), m_running(false)
{}

AThread::~AThread() = default;

void AThread::start()
{
    pthread_attr_init(&m_attributes);
    pthread_attr_setdetachstate(&m_attributes, PTHREAD_CREATE_JOINABLE);
    writeShared(m_running, true);
    if (pthread_create(&m_thread, &m_attributes, entryPoint, this) != 0)
        m_thread = 0; // a failed creation may leave anything in it
    pthread_attr_destroy(&m_attributes);
}

void AThread::stopThread()
{
    writeShared(m_stopRequested, true);
    std::atomic_ref<unsigned>(s_stopRequests).fetch_add(1, std::memory_order_release);
    ::syscall(SYS_futex, &s_stopRequests, FUTEX_WAKE_BITSET_PRIVATE, INT_MAX, nullptr, nullptr,
              groupOf(this));
}

void AThread::join()
{
    if (!readShared(m_running) || m_thread == 0)
        return;
    // A body that joins itself is refused by the system, and its owner can still join it.
    if (pthread_join(m_thread, nullptr) == 0)
        m_thread = 0;
}

bool AThread::isStopRequested()
{
    return readShared(m_stopRequested);
}

bool AThread::isRunning()
{
    return readShared(m_running);
}

bool AThread::pauseFor(int timeoutMs)
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const timespec end = deadlineAfter(now, timeoutMs);
    for (bool goesOn = true; goesOn;) {
        const unsigned requests = readShared(s_stopRequests); // first: a later request then ends the sleep
        if (isStopRequested())
            return false;
        goesOn = sleepUntil(end, requests, groupOf(this));
    }
    return !isStopRequested();
}

std::int64_t AThread::getThreadID()
{
    return ::syscall(SYS_gettid);
}

void* AThread::entryPoint(void* object)
{
    static_cast<AThread*>(object)->run();
    return nullptr;
}
