// A queue between two threads. A guard gives the lock back at the end of its scope.

#include "Monitor.h"

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
    while (queue.values.empty()) // a wake-up may be spurious, or the end of the half second
        queue.monitor.wait(500);
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
    for (int count = 0; count < 3; ++count)
        std::printf("took %d\n", take(queue));
    producer.join();
}
