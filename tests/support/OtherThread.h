// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <pthread.h>
#include <thread>
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

/// Make @p call in a thread whose cancellation is pending.
/// @return whether the call came back.
inline bool returnsWhenCancelled(const std::function<void()>& call)
{
    bool returned = false;
    std::thread([&] {
        ::pthread_cancel(::pthread_self());
        call();
        returned = true;
    }).join();
    return returned;
}
