// SPDX-License-Identifier: BSD-3-Clause
// A queue between two threads, which gives -1 when nothing comes for half a second. A guard gives the lock
// back at the end of its scope.

#include "Monitor.h"

#include <chrono>
#include <cstdio>
#include <deque>
#include <thread>

struct Queue {
    Monitor monitor;
    std::deque<int> values;
};

void put(Queue& queue, int value)
{
    const MonitorLock lock = queue.monitor.acquireLock();
    queue.values.push_back(value);
    queue.monitor.notify();
}

int take(Queue& queue)
{
    const MonitorLock lock = queue.monitor.acquireLock();
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
    while (queue.values.empty()) { // a wake-up may be spurious
        if (!queue.monitor.waitUntil(end))
            return -1;
    }
    const int value = queue.values.front();
    queue.values.pop_front();
    return value;
}

int main()
{
    Queue queue;
    std::thread producer([&queue] {
        for (const int value : {1, 2, 3})
            put(queue, value);
    });
    for (int count = 0; count < 4; ++count)
        std::printf("took %d\n", take(queue));
    producer.join();
}
