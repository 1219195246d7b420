// SPDX-License-Identifier: BSD-3-Clause
#include "AInteger.h"
#include "ALog.h"
#include "ASocket.h"
#include "Compare.h"
#include "ReadyLine.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kTimeout = 5; // seconds

/// Both ends of a TCP connection over loopback.
class Connection {
public:
    Connection()
    {
        socklen_t size = sizeof address;
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
        ::bind(listener, generic, size);
        ::listen(listener, 1);
        ::getsockname(listener, generic, &size);
        sender = ::socket(AF_INET, SOCK_STREAM, 0);
        ::connect(sender, generic, size);
        receiver = ::accept(listener, nullptr, nullptr);
        ::close(listener);
        const int room = 1 << 20; // for a whole block
        ::setsockopt(sender, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
        ::setsockopt(receiver, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    }

    sockaddr_in address{};
    int sender = -1;
    int receiver = -1;
};

/// Keeps this thread, and the threads that it starts, on one core: a wake-up across cores takes as long as
/// the whole trip or three times that, by chance.
class OneCore {
public:
    OneCore()
    {
        ::sched_getaffinity(0, sizeof m_before, &m_before);
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(::sched_getcpu(), &one);
        ::sched_setaffinity(0, sizeof one, &one);
    }
    ~OneCore() { ::sched_setaffinity(0, sizeof m_before, &m_before); }
    OneCore(const OneCore&) = delete;
    OneCore& operator=(const OneCore&) = delete;

private:
    cpu_set_t m_before;
};

/// A peer at the receiving end that sends every int back, until the connection closes.
class Echo {
public:
    explicit Echo(const Connection& connection)
        : m_thread([end = connection.receiver] {
              std::uint32_t value = 0;
              while (::recv(end, &value, sizeof value, MSG_WAITALL) == sizeof value)
                  benchmark::DoNotOptimize(::write(end, &value, sizeof value));
              ::close(end);
          })
    {}
    ~Echo() { m_thread.join(); }
    Echo(const Echo&) = delete;
    Echo& operator=(const Echo&) = delete;

private:
    std::thread m_thread;
};

void streamTrips(benchmark::State& state, ALog* log)
{
    const OneCore core;
    Connection connection;
    const Echo echo(connection);
    ASocket socket(connection.sender, connection.address);
    if (log != nullptr)
        socket.setLog(*log);
    int value = 0;
    for (auto _ : state) {
        socket.writeInt(4711);
        benchmark::DoNotOptimize(socket.readInt(value, kTimeout));
    }
}

void silentTrips(benchmark::State& state)
{
    streamTrips(state, nullptr);
}

void loggedTrips(benchmark::State& state)
{
    FILE* file = std::tmpfile();
    ALog log("consoled", file);
    streamTrips(state, &log);
    std::fclose(file);
}

/// @p putLines is called with the number of lines that a log gets before each step.
template <typename PutLines>
void bareTripsWith(benchmark::State& state, PutLines putLines)
{
    const OneCore core;
    Connection connection;
    const Echo echo(connection);
    for (auto _ : state) {
        std::uint32_t value = htonl(4711);
        putLines(2);
        benchmark::DoNotOptimize(::write(connection.sender, &value, sizeof value));
        putLines(4);
        pollfd entry{connection.sender, POLLIN, 0};
        benchmark::DoNotOptimize(::poll(&entry, 1, kTimeout * 1000));
        benchmark::DoNotOptimize(::recv(connection.sender, &value, sizeof value, MSG_WAITALL));
        benchmark::DoNotOptimize(ntohl(value));
        putLines(4);
    }
    ::close(connection.sender);
}

void bareTrips(benchmark::State& state)
{
    bareTripsWith(state, [](int) {});
}

void bareTripsWithReadyLines(benchmark::State& state)
{
    FILE* file = std::tmpfile();
    ReadyLine ready(file);
    bareTripsWith(state, [&](int lines) {
        for (int i = 0; i < lines; ++i)
            ready.put("11/24/2026 12:34:56 consoled -ASocket::socket_read:429 data=<0> len=<4> flag=<0>\n");
    });
    std::fclose(file);
}

constexpr std::size_t kBlockSize = 64 * 1024;

void streamBlocks(benchmark::State& state)
{
    Connection connection;
    ASocket out(connection.sender, connection.address);
    ASocket in(connection.receiver, connection.address);
    std::vector<unsigned char> block(kBlockSize, 'x');
    const int size = static_cast<int>(block.size());
    for (auto _ : state) {
        out.write(block.data(), size);
        benchmark::DoNotOptimize(in.readFully(block.data(), 0, size, kTimeout));
    }
}

void bareBlocks(benchmark::State& state)
{
    Connection connection;
    std::vector<unsigned char> block(kBlockSize, 'x');
    for (auto _ : state) {
        benchmark::DoNotOptimize(::write(connection.sender, block.data(), block.size()));
        pollfd entry{connection.receiver, POLLIN, 0};
        benchmark::DoNotOptimize(::poll(&entry, 1, kTimeout * 1000));
        benchmark::DoNotOptimize(::recv(connection.receiver, block.data(), block.size(), MSG_WAITALL));
    }
    ::close(connection.sender);
    ::close(connection.receiver);
}

const char* opaque(const char* text)
{
    benchmark::DoNotOptimize(text);
    return text;
}

void parseInt(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(AInteger::parseInt(opaque("  -65536")));
}

void strtolOfTheSame(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(std::strtol(opaque("  -65536"), nullptr, 0));
}

} // namespace

void registerStreamComparisons()
{
    const char* bare = "write + poll + recv";
    compare({"writeInt + readInt round trip, no log", bare, 1.05}, silentTrips, bareTrips);
    compare({"the same, its log attached", bare, 1.10}, loggedTrips, bareTrips);
    compare({"the same, its log attached", "the same and ten ready lines", 1.10}, loggedTrips,
            bareTripsWithReadyLines);
    compare({"64 KiB blocks one way", bare, 1.03}, streamBlocks, bareBlocks);
    compare({"AInteger::parseInt", "strtol of the same text", 1.50}, parseInt, strtolOfTheSame);
}
