#include "AComponentLog.h"
#include "AInteger.h"
#include "ALog.h"
#include "ASocket.h"
#include "Compare.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

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

/// The bare calls with the lines that the sockets write about them.
void loggedCalls(benchmark::State& state)
{
    FILE* file = std::tmpfile();
    ALog base("consoled", file);
    AComponentLog log("", base);
    Bare bare;
    for (auto _ : state) {
        log.print("ASocket::%s:%d: writeInt( %i )\n", "writeInt", 100, 4711);
        log.print("ASocket::%s:%d: write( %x, %i )\n", "write", 100, 0, 4);
        bare.send();
        log.print("ASocket::%s:%d: timeout = %i\n", "readInt", 100, kTimeout);
        log.print("ASocket::%s:%d m_socketState=<%d> offset=<%d> len=<%d> timeout=<%i>\n", "readFully", 100,
                  1, 0, 4, kTimeout);
        log.print("ASocket::%s:%d:    about to read from socket\n", "readFully", 100);
        log.print("ASocket::%s:%d data=<%x> len=<%d> flag=<%d> timeout=<%i>\n", "socket_read", 100, 0, 4, 256,
                  kTimeout);
        bare.receive();
        log.print("ASocket::%s:%d :    read %i bytes\n", "socket_read", 100, 4);
        log.print("ASocket::%s:%d:    read returned %i, %i bytes have been read.\n", "readFully", 100, 4, 4);
        log.print("ASocket::%s:%d:    read %i bytes\n", "readFully", 100, 4);
        log.print("ASocket::%s:%d: read value = %i\n", "readInt", 100, 4711);
    }
    std::fclose(file);
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
    compare({"writeInt + readInt, 5 s time-out, no log", "write + poll + recv", 1.05}, streams, bareCalls);
    compare({"writeInt + readInt, 5 s time-out, logged", "write + poll + recv + the same lines", 1.10},
            loggedStreams, loggedCalls);
    compare({"AInteger::parseInt", "strtol of the same text", 1.50}, parseInt, strtolOfTheSame);
}
