// SPDX-License-Identifier: BSD-3-Clause
// Makes the calls that hosts make most, each many times in a function of its own: script/instructions counts
// what the processor executes for them.

#include "AComponentLog.h"
#include "AInteger.h"
#include "ALog.h"
#include "ASocket.h"
#include "ATrace.h"
#include "Monitor.h"
#include "PAMHelper.h"

#include <cstdio>
#include <ctime>
#include <string>
#include <sys/socket.h>

namespace {

constexpr int kCalls = 200; // as many integers as a socket keeps
constexpr int kLogins = 100;
constexpr const char* kFormat = "session %d of %s: get %s\n";
constexpr const char* kNull = "/dev/null";

/// A second that began among the calls would put the making of a new stamp into their count.
void awaitNextSecond()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const timespec begin{now.tv_sec + 1, 0};
    clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &begin, nullptr);
}

/// The objects that the calls work on.
struct Scene {
    explicit Scene(int (&ends)[2]) : writer(ends[0], address), reader(ends[1], address)
    {
        trace.Init(1, kNull);
        for (int i = 0; i < kLogins; ++i)
            (new PAMHelper(nullptr, nullptr))->setSessionId("login" + std::to_string(i));
        awaitNextSecond();
        log.print("%s", "loads the time zone\n");
        trace.TraceLog(0, "%s", "opens the file\n");
    }

    ALog log{"consoled", std::fopen(kNull, "w")};
    AComponentLog component{"session", log};
    AComponentLog disabled{"session"};
    ATrace trace;
    Monitor monitor;
    std::string login = "login50";
    sockaddr_in address{};
    ASocket writer;
    ASocket reader;
};

} // namespace

// The prefix is what the counting script looks for.
extern "C" {

[[gnu::noinline]] void count_print(Scene& scene)
{
    for (int i = 0; i < kCalls; ++i)
        scene.log.print(kFormat, 17, "alice", "hostname");
}

[[gnu::noinline]] void count_component_print(Scene& scene)
{
    for (int i = 0; i < kCalls; ++i)
        scene.component.print(kFormat, 17, "alice", "hostname");
}

[[gnu::noinline]] void count_disabled_component(Scene& scene)
{
    for (int i = 0; i < kCalls; ++i)
        scene.disabled.print(kFormat, 17, "alice", "hostname");
}

[[gnu::noinline]] void count_filtered_trace(Scene& scene)
{
    for (int i = 0; i < kCalls; ++i)
        scene.trace.TraceLog(2, kFormat, 17, "alice", "hostname");
}

[[gnu::noinline]] void count_trace(Scene& scene)
{
    for (int i = 0; i < kCalls; ++i)
        scene.trace.TraceLog(1, kFormat, 17, "alice", "hostname");
}

[[gnu::noinline]] void count_lock_and_release(Scene& scene)
{
    for (int i = 0; i < kCalls; ++i) {
        scene.monitor.fastLock();
        scene.monitor.releaseLock();
    }
}

[[gnu::noinline]] void count_look_up(Scene& scene)
{
    for (int i = 0; i < kCalls; ++i)
        PAMHelper::instanceForSessionId(scene.login);
}

[[gnu::noinline]] void count_write_int(Scene& scene)
{
    for (int i = 0; i < kCalls; ++i)
        scene.writer.writeInt(i);
}

[[gnu::noinline]] void count_read_int(Scene& scene)
{
    for (int i = 0, value = 0; i < kCalls; ++i)
        scene.reader.readInt(value, 5);
}

[[gnu::noinline]] void count_parse_int(Scene&)
{
    for (int i = 0; i < kCalls; ++i)
        AInteger::parseInt("1234567");
}
}

int main()
{
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
        return 1;
    Scene scene(ends);
    for (auto* count :
         {count_print, count_component_print, count_disabled_component, count_filtered_trace, count_trace,
          count_lock_and_release, count_look_up, count_write_int, count_read_int, count_parse_int})
        count(scene);
}
