// SPDX-License-Identifier: BSD-3-Clause
// A class whose work runs on a thread of its own until it is told to stop.

#include "AThread.h"

#include <cstdio>
#include <unistd.h>

class Poller : public AThread {
public:
    ~Poller() override
    {
        stopThread(); // before the fields go that the body uses
        join();
        std::printf("the body ran on a thread of its own: %s\n", m_id != ::getpid() ? "yes" : "no");
    }

private:
    void run() override
    {
        do
            m_id = getThreadID(); // what it polls
        while (pauseFor(60'000)); // no end of it is waited for
    }

    std::int64_t m_id = 0;
};

int main()
{
    Poller poller;
    std::printf("running: %d\n", poller.isRunning());
    poller.start();
    std::printf("running: %d\n", poller.isRunning());
    if (!poller.isJoinable())
        std::puts("the system has no thread left");
}
