#include "AInteger.h"
#include "ALog.h"
#include "ASocket.h"
#include "Compare.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <poll.h>
#include <sys/socket.h>
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

/// Carries an int over a connection with bare system calls, which it closes at its end.
class Bare : Connection {
public:
    ~Bare()
    {
        ::close(sender);
        ::close(receiver);
    }
    void send()
    {
        const std::uint32_t value = htonl(4711);
        benchmark::DoNotOptimize(::write(sender, &value, sizeof value));
    }
    void receive()
    {
        pollfd entry{receiver, POLLIN, 0};
        std::uint32_t value = 0;
        benchmark::DoNotOptimize(::poll(&entry, 1, kTimeout * 1000));
        benchmark::DoNotOptimize(::recv(receiver, &value, sizeof value, MSG_WAITALL));
        benchmark::DoNotOptimize(ntohl(value));
    }
    void carry(std::vector<unsigned char>& block)
    {
        benchmark::DoNotOptimize(::write(sender, block.data(), block.size()));
        pollfd entry{receiver, POLLIN, 0};
        benchmark::DoNotOptimize(::poll(&entry, 1, kTimeout * 1000));
        benchmark::DoNotOptimize(::recv(receiver, block.data(), block.size(), MSG_WAITALL));
    }
};

/// The same through sockets.
struct Streams : Connection {
    void carry()
    {
        int value = 0;
        out.writeInt(4711);
        benchmark::DoNotOptimize(in.readInt(value, kTimeout));
    }

    ASocket out{sender, address};
    ASocket in{receiver, address};
};

void streams(benchmark::State& state)
{
    Streams streams;
    for (auto _ : state)
        streams.carry();
}

void bareCalls(benchmark::State& state)
{
    Bare bare;
    for (auto _ : state) {
        bare.send();
        bare.receive();
    }
}

void loggedStreams(benchmark::State& state)
{
    FILE* file = std::tmpfile();
    ALog log("consoled", file);
    Streams streams;
    streams.out.setLog(log);
    streams.in.setLog(log);
    for (auto _ : state)
        streams.carry();
    std::fclose(file);
}

constexpr std::size_t kBlockSize = 64 * 1024;

void streamBlocks(benchmark::State& state)
{
    Streams streams;
    std::vector<unsigned char> block(kBlockSize, 'x');
    for (auto _ : state) {
        streams.out.write(block.data(), static_cast<int>(block.size()));
        benchmark::DoNotOptimize(
            streams.in.readFully(block.data(), 0, static_cast<int>(block.size()), kTimeout));
    }
}

void bareBlocks(benchmark::State& state)
{
    Bare bare;
    std::vector<unsigned char> block(kBlockSize, 'x');
    for (auto _ : state)
        bare.carry(block);
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
    const char* trip = "write + poll + recv";
    compare({"writeInt + readInt, 5 s time-out, no log", trip, 1.05}, streams, bareCalls);
    compare({"the same, its log attached: ten lines a trip", trip, 1.10}, loggedStreams, bareCalls);
    compare({"64 KiB blocks one way", trip, 1.03}, streamBlocks, bareBlocks);
    compare({"AInteger::parseInt", "strtol of the same text", 1.50}, parseInt, strtolOfTheSame);
}
