// SPDX-License-Identifier: BSD-3-Clause
// Makes the calls that hosts make most, each many times in a function of its own, and beside them what one
// would call instead: script/instructions counts what the processor executes for them.
//
// usage: gorv_calls [FILE]   with a FILE for the lines: prints what each call takes, in nanoseconds. Where
// the
//                            clock counts instructions, these are instructions, the kernel's included.

#include "AComponentLog.h"
#include "AInteger.h"
#include "ALog.h"
#include "ASocket.h"
#include "ATrace.h"
#include "AUtil.h"
#include "Monitor.h"
#include "PAMHelper.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int kCalls = 200; // as many integers as a socket keeps
constexpr int kLogins = 100;
constexpr const char* kFormat = "session %d of %s: get %s\n";
constexpr int kRounds = 9; // of which the cheapest counts
constexpr char kLine[] = "11/25/2026 04:34:47 consoled - session 17 of alice: get hostname\n";

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
    Scene(const char* file, int (&ends)[2])
        : log{"consoled", std::fopen(file, "a")}, stream(std::fopen(file, "a")),
          descriptor(::open(file, O_WRONLY | O_APPEND | O_CLOEXEC)), writer(ends[0], address),
          reader(ends[1], address)
    {
        trace.Init(1, file);
        for (int i = 0; i < kLogins; ++i)
            (new PAMHelper(nullptr, nullptr))->setSessionId("login" + std::to_string(i));
        awaitNextSecond();
        log.print("%s", "loads the time zone\n");
        trace.TraceLog(0, "%s", "opens the file\n");
    }

    ALog log;
    AComponentLog component{"session", log};
    AComponentLog disabled{"session"};
    ATrace trace;
    Monitor monitor;
    std::string login = "login50";
    FILE* stream;
    int descriptor;
    std::recursive_mutex mutex;
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

[[gnu::noinline]] void count_random_key(Scene&)
{
    for (int i = 0; i < kCalls; ++i)
        AUtil::generateRandomKey();
}

[[gnu::noinline]] void count_bare_write(Scene& scene)
{
    for (int i = 0; i < kCalls; ++i)
        if (::write(scene.descriptor, kLine, sizeof kLine - 1) < 0)
            std::abort();
}

[[gnu::noinline]] void count_bare_fprintf(Scene& scene)
{
    for (int i = 0; i < kCalls; ++i) {
        std::fprintf(scene.stream, "%s %s - session %d of %s: get %s\n", "11/25/2026 04:34:47", "consoled",
                     17, "alice", "hostname");
        std::fflush(scene.stream);
    }
}

[[gnu::noinline]] void count_bare_lock(Scene& scene)
{
    for (int i = 0; i < kCalls; ++i) {
        scene.mutex.lock();
        scene.mutex.unlock();
    }
}

[[gnu::noinline]] void count_bare_strtol(Scene&)
{
    static volatile long s_value; // or nothing would be called
    for (int i = 0; i < kCalls; ++i)
        s_value = std::strtol("1234567", nullptr, 10);
}
}

namespace {

struct Count {
    const char* name;
    void (*function)(Scene&);
    std::chrono::nanoseconds least = std::chrono::nanoseconds::max();
};

void take(Count& count, Scene& scene)
{
    const auto begin = std::chrono::steady_clock::now();
    count.function(scene);
    count.least = std::min<std::chrono::nanoseconds>(count.least, std::chrono::steady_clock::now() - begin);
}

} // namespace

int main(int argc, char** argv)
{
    Count counts[] = {
        {"print", count_print},
        {"component_print", count_component_print},
        {"disabled_component", count_disabled_component},
        {"filtered_trace", count_filtered_trace},
        {"trace", count_trace},
        {"lock_and_release", count_lock_and_release},
        {"look_up", count_look_up},
        {"write_int", count_write_int},
        {"read_int", count_read_int},
        {"parse_int", count_parse_int},
        {"random_key", count_random_key},
        {"bare_write", count_bare_write},
        {"bare_fprintf", count_bare_fprintf},
        {"bare_lock", count_bare_lock},
        {"bare_strtol", count_bare_strtol},
    };
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
        return 1;
    Scene scene(argc > 1 ? argv[1] : "/dev/null", ends);
    for (int round = 0; round < (argc > 1 ? kRounds : 1); ++round)
        for (Count& count : counts)
            take(count, scene);
    for (const Count& count : counts) {
        if (argc > 1)
            std::printf("%-20s %6ld\n", count.name, static_cast<long>(count.least.count() / kCalls));
    }
}
