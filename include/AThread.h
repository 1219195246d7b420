// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "GorvApi.h"

#include <cstdint>
#include <pthread.h>

/// A base for classes that run their work on a thread of their own.
///
/// The derived class supplies run(). Start an object at most once; before it is destroyed, its owner calls
/// stopThread() and join(). Nothing here throws. Neither copied nor moved.
///
/// @code
/// class Poller : public AThread {
///     void run() override
///     {
///         do
///             pollOnce();
///         while (pauseFor(500));
///     }
/// };
/// @endcode
///
/// @include examples/reference/AThread.cpp
/// @verbinclude examples/reference/AThread.out
class GORV_API AThread {
public:
    AThread();

    /// Neither stops nor joins the thread.
    virtual ~AThread();

    AThread(const AThread&) = delete;
    AThread& operator=(const AThread&) = delete;

    /// Create the thread, which calls run() once. isRunning() is true from here on, even when the system
    /// can't create a thread: isJoinable() tells that.
    virtual void start();

    /// The body. An exception that leaves it ends the process.
    virtual void run() = 0;

    /// Ask the body to return, and end its pauseFor(). Wakes it from nothing else, and doesn't wait for it.
    /// Safe from any thread and from a signal handler, also before start().
    virtual void stopThread();

    /// Wait until the body has returned. Called by one thread, after start() has returned. Returns at once if
    /// start() was not called or could create no thread, and when the thread was joined before.
    void join();

    /// Returns whether there is a thread that join() would wait for: after start(), whether one could be
    /// created. Called by the thread that starts and joins.
    bool isJoinable() const { return m_thread != 0; }

    /// Returns whether start() was called; the end of the body and join() don't change that. Safe from any
    /// thread.
    bool isRunning();

    /// Returns the kernel's id of the calling thread, which inside run() is the object's own.
    std::int64_t getThreadID();

    /// Call run() on @p object, an AThread. The start routine of the thread.
    /// @return null.
    static void* entryPoint(void* object);

private:
    pthread_t m_thread; // 0 while there is nothing to join
    pthread_attr_t m_attributes;

protected:
    /// Returns whether stopThread() was called. Safe from any thread.
    bool isStopRequested();

    /// Let the body rest for @p timeoutMs milliseconds (less than 0 counts as 0), until stopThread() is
    /// called or not at all if it was called before. A change of the system's time doesn't stretch it.
    /// @return whether the body shall go on; false once stopThread() was called.
    bool pauseFor(int timeoutMs);

    bool m_stopRequested; ///< Set by stopThread(), possibly while the body runs: ask isStopRequested().
    bool m_running;       ///< Set by start(). Derived classes only read it.
};
