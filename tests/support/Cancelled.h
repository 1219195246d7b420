// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <pthread.h>
#include <thread>

/// Run @p operation on a thread that has been cancelled before.
/// @return whether it came to its end.
template <typename Operation>
bool endsDespiteCancellation(Operation operation)
{
    bool ended = false;
    std::thread([&] {
        pthread_cancel(pthread_self());
        operation();
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        ended = true;
    }).join();
    return ended;
}
