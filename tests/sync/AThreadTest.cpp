#include "AThread.h"
#include "support/Cancelled.h"
#include "support/Interposed.h"

#include <atomic>
#include <gtest/gtest.h>

static bool s_creationFails = false;

// The library's call ends here.
INTERPOSED int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                              void* object) noexcept
{
    static const auto s_create = nextDefinition<decltype(::pthread_create)>("pthread_create");
    *thread = 1; // a failed creation may leave anything
    return s_creationFails ? EAGAIN : s_create(thread, attributes, body, object);
}

struct Counter : AThread {
    void run() override
    {
        for (m_id = getThreadID(); !isStopRequested();)
            ++m_rounds;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        m_hasEnded = true;
    }
    std::atomic<std::int64_t> m_id = 0, m_rounds = 0;
    std::atomic<bool> m_hasEnded = false;
};

TEST(AThreadTest, BodyRunsOnAThreadOfItsOwnUntilItIsAskedToStop)
{
    Counter thread;
    EXPECT_FALSE(thread.isRunning());
    thread.start();
    while (thread.m_rounds == 0)
        EXPECT_TRUE(thread.isRunning());
    thread.stopThread();
    thread.join();
    EXPECT_TRUE(thread.isRunning());
    EXPECT_NE(thread.m_id, ::gettid());
    EXPECT_EQ(thread.getThreadID(), ::gettid());
}

TEST(AThreadTest, JoinWaitsForNothingWithoutAThreadToJoin)
{
    Counter thread, next, refused;
    thread.join(); // not started
    thread.stopThread();
    thread.start();
    thread.join();
    next.start();
    thread.join(); // must not wait for the next thread, which has taken over the handle
    next.stopThread();
    next.join();
    s_creationFails = true;
    refused.start();
    s_creationFails = false;
    refused.join(); // never there
    EXPECT_TRUE(refused.isRunning());
}

#ifndef __SANITIZE_THREAD__ // which can't have a join cancelled
TEST(AThreadTest, CancelledJoinLeavesTheThreadToBeJoined)
{
    Counter thread;
    thread.start();
    EXPECT_FALSE(endsDespiteCancellation([&] { thread.join(); }));
    thread.stopThread();
    thread.join();
    EXPECT_TRUE(thread.m_hasEnded);
}
#endif
