// SPDX-License-Identifier: BSD-3-Clause
#include "AThread.h"
#include "support/Interposed.h"
#include "support/OtherThread.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <gtest/gtest.h>

#ifdef __SANITIZE_THREAD__ // which keeps them until the system call is over
constexpr bool kTakesSignals = false;
#else
constexpr bool kTakesSignals = true;
#endif

static bool s_creationFails = false;

// The library's call ends here.
INTERPOSED int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                              void* object) noexcept
{
    static const auto s_create = nextDefinition<decltype(::pthread_create)>("pthread_create");
    *thread = 1; // a failed creation may leave anything
    if (!s_creationFails)
        return s_create(thread, attributes, body, object);
    EXPECT_TRUE(static_cast<AThread*>(object)->isRunning()); // from before the body begins
    return EAGAIN;
}

/// Goes on until it is asked to stop, and a little longer.
struct Waiter : AThread {
    void run() override
    {
        while (!isStopRequested())
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        m_hasEnded = true;
    }
    std::atomic<bool> m_hasEnded = false;
};

TEST(AThreadTest, JoinWaitsForNothingWithoutAThreadToJoin)
{
    Waiter thread, next, refused;
    thread.join(); // not started
    EXPECT_FALSE(thread.isJoinable() || thread.isRunning());
    thread.stopThread();
    thread.start();
    EXPECT_TRUE(thread.isJoinable());
    thread.join();
    EXPECT_FALSE(thread.isJoinable());
    EXPECT_TRUE(thread.isRunning()); // for good
    EXPECT_EQ(thread.getThreadID(), ::gettid());
    next.start();
    thread.join(); // must not wait for the next thread, which has taken over the handle
    next.stopThread();
    next.join();
    s_creationFails = true;
    refused.start();
    s_creationFails = false;
    EXPECT_FALSE(refused.isJoinable());
    refused.join(); // never there
    EXPECT_TRUE(refused.isRunning());
}

/// Pauses until it is asked to stop.
struct Sleeper : AThread {
    void run() override
    {
        m_handle = ::pthread_self();
        goesOn(50);
        goesOn(-1);
        m_state = Asleep;
        m_state = pauseFor(3'600'000) ? Overslept : Ended;
    }
    void goesOn(int timeoutMs)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        EXPECT_TRUE(pauseFor(timeoutMs));
        EXPECT_GE(std::chrono::steady_clock::now(), end);
        int type = -1;
        ::pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type);
        EXPECT_EQ(type, PTHREAD_CANCEL_DEFERRED); // again, once nobody waits
    }
    void awaitSleep() const
    {
        while (m_state != Asleep)
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    enum State { Awake, Asleep, Overslept, Ended };
    std::atomic<State> m_state = Awake;
    std::atomic<pthread_t> m_handle = 0;
    using AThread::pauseFor;
};

TEST(AThreadTest, PauseLastsUntilItsOwnThreadIsAskedToStopEvenByASignalHandler)
{
    std::array<Sleeper, 40> sleepers; // some share what they are woken by
    static Sleeper* s_stopped = nullptr;
    std::signal(SIGUSR1, [](int) { s_stopped->stopThread(); });
    for (Sleeper& sleeper : sleepers)
        sleeper.start();
    for (const Sleeper& sleeper : sleepers)
        sleeper.awaitSleep();
    for (Sleeper& sleeper : sleepers) {
        s_stopped = &sleeper;
        const bool takesItself = &sleeper == &sleepers[0] && kTakesSignals;
        ::pthread_kill(takesItself ? sleeper.m_handle.load() : ::pthread_self(), SIGUSR1);
        sleeper.join();
        EXPECT_EQ(sleeper.m_state, Sleeper::Ended);
        const auto later = sleepers.begin() + (&sleeper - sleepers.data()) + 1;
        EXPECT_TRUE(
            std::all_of(later, sleepers.end(), [](Sleeper& s) { return s.m_state == Sleeper::Asleep; }));
    }
    EXPECT_FALSE(sleepers[0].pauseFor(3'600'000)); // asked before
    std::signal(SIGUSR1, SIG_DFL);
}

#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__) // which guard the stack that is unwound
TEST(AThreadTest, CancellationEndsAPause)
{
    Sleeper sleeper;
    sleeper.start();
    sleeper.awaitSleep();
    ::pthread_cancel(sleeper.m_handle);
    sleeper.join();
    EXPECT_EQ(sleeper.m_state, Sleeper::Asleep);
}
#endif

#ifndef __SANITIZE_THREAD__ // which can't have a join cancelled
TEST(AThreadTest, CancelledJoinLeavesTheThreadToBeJoined)
{
    Waiter thread;
    thread.start();
    EXPECT_FALSE(returnsWhenCancelled([&] { thread.join(); }));
    thread.stopThread();
    thread.join();
    EXPECT_TRUE(thread.m_hasEnded);
}
#endif
