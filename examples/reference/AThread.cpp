// A class whose work runs on a thread of its own until it is told to stop.

#include "AThread.h"

#include <cstdio>
#include <ctime>
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
        m_id = getThreadID();
        const timespec pause = {0, 1'000'000};
        while (!isStopRequested())
            nanosleep(&pause, nullptr);
    }

    std::int64_t m_id = 0;
};

int main()
{
    Poller poller;
    std::printf("running: %d\n", poller.isRunning());
    poller.start();
    std::printf("running: %d\n", poller.isRunning());
}
