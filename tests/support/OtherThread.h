// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <pthread.h>
#include <thread>
#include <unistd.h>
#include <utility>

/// Another thread that does something at once.
class OtherThread {
public:
    explicit OtherThread(std::function<void()> action)
        : m_done(std::async(std::launch::async, std::move(action)))
    {}

    bool isDone() const { return m_done.wait_for(std::chrono::seconds(20)) == std::future_status::ready; }
    bool isKeptWaiting() const
    {
        return m_done.wait_for(std::chrono::milliseconds(50)) == std::future_status::timeout;
    }

private:
    std::future<void> m_done; // is waited for in the end
};

/// Make @p call in a thread that is cancelled @p later, while it waits, or has been already.
/// @return whether the call came back.
inline bool returnsWhenCancelled(const std::function<void()>& call, bool later = false)
{
    bool returned = false;
    std::thread thread([&] {
        if (!later)
            ::pthread_cancel(::pthread_self());
        call();
        ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        returned = true;
    });
    if (later) {
        ::usleep(100'000);
        ::pthread_cancel(thread.native_handle());
    }
    thread.join();
    return returned;
}
