// SPDX-License-Identifier: BSD-3-Clause
#include "ASocket.h"

#include "ALog.h"
#include "GorvSocketException.h"
#include "support/Files.h"
#include "support/Interposed.h"
#include "support/OtherThread.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>
#include <fnmatch.h>
#include <functional>
#include <netdb.h>
#include <optional>
#include <regex>
#include <sstream>
#include <sys/resource.h>
#include <thread>

using namespace std::string_literals;

/// Resolves a list of addresses, "127.0.0.3,127.0.0.2", to all of them.
INTERPOSED int getaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** found)
{
    static const auto s_real = nextDefinition<decltype(::getaddrinfo)>("getaddrinfo");
    std::istringstream hosts(host);
    int status = 0;
    for (std::string one; status == 0 && std::getline(hosts, one, ','); found = &(*found)->ai_next)
        status = s_real(one.c_str(), service, hints, found);
    return status;
}

static bool s_hadStandardNumber = false;

INTERPOSED int socket(int family, int type, int protocol) noexcept
{
    const int number = nextDefinition<decltype(::socket)>("socket")(family, type, protocol);
    s_hadStandardNumber |= number <= STDERR_FILENO;
    return number;
}

namespace {

/// All that @p call tells: standard output, then standard error, where the sockets of this test log as well.
/// Of the operation and source line that begin a message the operation stays.
std::string told(const std::function<void()>& call)
{
    CapturedStream output(stdout);
    CapturedStream error(stderr);
    call();
    const std::regex prefix("( -)?ASocket::(\\w+):[1-9][0-9]+");
    return std::regex_replace(output.text() + error.text(), prefix, "$2");
}

/// What the receiving @p operation tells after its result, the value and the state that it leaves.
template <typename Value>
std::string toldBy(ASocket& socket, int (ASocket::*operation)(Value&, unsigned int), unsigned int timeout)
{
    return told([&] {
        Value value = 77;
        const int result = (socket.*operation)(value, timeout);
        std::printf("%d %d %d ", result, value, socket.getSocketState());
    });
}

/// Whether @p text is @p pattern, in which "*" stands for anything.
bool matches(const std::string& text, const std::string& pattern)
{
    return ::fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
}

void limitDescriptors(rlim_t count)
{
    const rlimit limit{count, 4096};
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

/// Let a signal, which @p handler takes, interrupt what the process waits in every 20 ms.
void interruptWith(void (*handler)(int))
{
    struct sigaction action {};
    action.sa_handler = handler;
    ::sigaction(SIGALRM, &action, nullptr);
    ::ualarm(20'000, 20'000);
}

/// A logging socket on one end of a connection and a raw descriptor, the peer, on the other; the process
/// closes what is left.
struct Link {
    Link()
    {
        log.setShowTimestamp(false);
        socket.setLog(log);
    }
    int connect()
    {
        socklen_t size = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        ::bind(listener, generic, size);
        ::listen(listener, 8);
        ::getsockname(listener, generic, &size);
        ::connect(peer, generic, size);
        return ::accept(listener, nullptr, nullptr);
    }
    int port() const { return ntohs(address.sin_port); }
    void send(const std::string& bytes) const { ::send(peer, bytes.data(), bytes.size(), 0); }
    std::jthread sendLater(useconds_t delay, const std::string& bytes) const
    {
        return std::jthread([=, this] {
            ::usleep(delay);
            send(bytes);
        });
    }

    int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    int peer = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{AF_INET, 0, {::inet_addr("127.0.0.2")}, {}};
    int end = connect();
    ALog log{"", stderr};
    ASocket socket{end, address};
};

TEST(ASocketTest, ConnectingTellsItsProgressOrThrowsWhatItPrinted)
{
    const Link link;
    const int port = link.port() + 65536; // the low 16 bits count
    const std::string target = " ip=\"127.0.0.2\" port=" + std::to_string(port) + "\n";
    const std::string begun = "ASocket in constructor:" + target + "createIPSocket" + target;
    EXPECT_EQ(told([&] { ASocket("127.0.0.2", port, true); }), begun);
    const std::string progress =
        "createIPSocket:       connecting...\ncreateIPSocket  Successful connection to 127.0.0.2\n";
    EXPECT_EQ(told([&] { ASocket("127.0.0.2", port); }), begun + progress);
    ASocket quiet;
    quiet.setSilent(true);
    EXPECT_EQ(told([&] { quiet.createIPSocket("127.0.0.2", port); }), "createIPSocket" + target);
    sockaddr_in address{};
    ASocket fresh, copy(quiet), accepted(::dup(link.end), address); // are not
    for (ASocket* const socket : {&fresh, &copy, &accepted}) {
        EXPECT_EQ(told([&] { socket->createIPSocket("127.0.0.2", port); }),
                  "createIPSocket" + target + progress);
        EXPECT_EQ(::fcntl(socket->getDescriptor(), F_GETFD), FD_CLOEXEC);
    }
    told([&] { ASocket(("127.0.0." + std::string(2000, '0') + "2").c_str(), port); });
    const std::string name(300, 'x'), message = ("host info not found ip=\"" + name).substr(0, 255);
    EXPECT_PRED2(matches, told([&] { EXPECT_THROW(ASocket(name.c_str(), port), GorvSocketException); }),
                 "*connecting...\ncreateIPSocket " + message +
                     "\ncreateIPSocket Exception with message: " + message + ".\nhost info not found: *");
}

/// A listener at @p port of @p address; 0 takes a free one.
int listenAt(const char* address, int port, int backlog)
{
    addrinfo hints{}, *found = nullptr;
    hints.ai_socktype = SOCK_STREAM;
    ::getaddrinfo(address, std::to_string(port).c_str(), &hints, &found);
    const int listener = ::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ::bind(listener, found->ai_addr, found->ai_addrlen);
    ::freeaddrinfo(found);
    return ::listen(listener, backlog) == 0 ? listener : -1;
}

TEST(ASocketTest, ConnectToTriesEachAddressForItsShareOfTheTimeAndTellsTheLastReasonByItsExceptionOnly)
{
    const Link link;
    const int port = link.port(), full = listenAt("127.0.0.4", port, 0), six = listenAt("::1", port, 4);
    ASocket filler;
    filler.connectTo("127.0.0.4", port, 5);
    const std::string refused = "Connection refused\n", late = "Connection timed out\n";
    std::vector<std::pair<const char*, std::string>> rows = {{"127.0.0.2", ""},
                                                             {"127.0.0.3,127.0.0.2", ""},
                                                             {"127.0.0.4,127.0.0.2", ""},
                                                             {"127.0.0.2,127.0.0.4", ""},
                                                             {"127.0.0.4,127.0.0.3", refused},
                                                             {"127.0.0.3,127.0.0.4", late},
                                                             {nullptr, "Name or service not known\n"}};
    if (six >= 0) // else there is no IPv6 here
        rows.emplace_back("::1", "");
    const int before = openDescriptors();
    for (const auto& [host, reason] : rows) {
        ASocket socket;
        std::string failure;
        const auto start = std::chrono::steady_clock::now();
        const std::string printed = told([&, name = host] {
            ::close(STDIN_FILENO);
            interruptWith([](int) {});
            try {
                socket.connectTo(name, port, 1);
            } catch (const GorvSocketException& thrown) {
                failure = thrown.getFunction() + ": " + thrown.getMessage();
            }
            ::ualarm(0, 0);
            ::open("/dev/null", O_RDONLY | O_CLOEXEC); // the standard input again
        });
        SCOPED_TRACE(host == nullptr ? "(null)" : host);
        EXPECT_EQ(printed, "");
        EXPECT_EQ(socket.getSocketState(), reason.empty() ? ASocket::CONNECTED : ASocket::CONNECT_FAILED);
        EXPECT_EQ(socket.isOpen(), reason.empty());
        if (reason.empty()) {
            EXPECT_GT(socket.getDescriptor(), STDERR_FILENO);
            EXPECT_EQ(::fcntl(socket.getDescriptor(), F_GETFD), FD_CLOEXEC);
            EXPECT_EQ(::fcntl(socket.getDescriptor(), F_GETFL), O_RDWR);
        } else {
            EXPECT_PRED2(matches, failure, "connectTo: * port=" + std::to_string(port) + ": " + reason);
        }
        if (reason == late) {
            EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
        }
    }
#ifndef __SANITIZE_ADDRESS__ // which takes the stack that a cancelled thread has left for one in use
    EXPECT_FALSE(returnsWhenCancelled([=] { ASocket().connectTo("127.0.0.4", port, 60); }, true));
#endif
    EXPECT_EQ(openDescriptors(), before);
    ::close(full);
    ::close(six);
}

TEST(ASocketTest, EachCopyClosesADescriptorOfItsOwnAboveTheStandardOnesAndConnectingAgainLosesNone)
{
    Link link;
    const int before = openDescriptors();
    {
        std::optional<ASocket> copied;
        told([&] {
            const int errors = ::dup(STDERR_FILENO);
            ::close(STDERR_FILENO);
            copied.emplace(link.socket);
            link.socket.createIPSocket("127.0.0.2", link.port());
            ::dup2(errors, STDERR_FILENO);
            ::close(errors);
        });
        ASocket& copy = *copied;
        for (ASocket* socket : {&copy, &link.socket}) {
            EXPECT_GT(socket->getDescriptor(), STDERR_FILENO);
            EXPECT_EQ(::fcntl(socket->getDescriptor(), F_GETFD), FD_CLOEXEC);
        }
        link.send("\7");
        EXPECT_EQ(toldBy(copy, &ASocket::readByte, 5), "1 7 1 ");
        copy.close();
        EXPECT_EQ(ASocket(copy).getSocketState(), ASocket::CLOSED);
    }
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_FALSE(s_hadStandardNumber); // not for a moment
}

TEST(ASocketTest, SpeaksTheWireFormatAndLogsEveryStep)
{
    Link link;
    ASocket& socket = link.socket;
    link.send("\0\0\1\0\377\376\376\3\1\2"s);
    EXPECT_EQ(toldBy(socket, &ASocket::readInt, 5),
              "4 256 1 readInt: timeout = 5\nreadFully m_socketState=<1> offset=<0> len=<4> timeout=<5>\n"
              "readFully:    about to read from socket\n"
              "socket_read data=<0> len=<4> flag=<256> timeout=<5>\nsocket_read :    read 4 bytes\n"
              "readFully:    read returned 4, 4 bytes have been read.\n"
              "readFully:    read 4 bytes\nreadInt: read value = 256\n");
    EXPECT_PRED2(matches, toldBy(socket, &ASocket::readShort, 5),
                 "2 -2 1 readShort: timeout = 5\n*\nreadShort: read value = -2\n");
    EXPECT_PRED2(matches, toldBy(socket, &ASocket::readByte, 0),
                 "1 254 1 readByte: timeout = 0\n*\nreadByte: read value = 254\n");
    unsigned char data[7] = {0xAB, 0, 0, 0, 0, 0, 0xEE}; // the last one is foreign
    EXPECT_PRED2(matches, told([&] {
                     EXPECT_EQ(socket.readFully(data, 5, 1, 0), 1);
                     EXPECT_EQ(socket.read(data, 2, 1, 3), 1);
                     EXPECT_EQ(socket.read(data + 6, -3, 1, 3), 1);
                     EXPECT_EQ(socket.readFully(nullptr, 0, 0, 1), 0);
                     socket.writeInt(-66052);
                     socket.writeShort(74565);
                     socket.writeByte(0xFE);
                     socket.flush(); // nothing to tell
                     socket.writeString(nullptr);
                     socket << "%s" << reinterpret_cast<const unsigned char*>("");
                 }),
                 "*\nread m_socketState=<1> offset=<2> len=<1> timeout=<3>\nread read( ab, 2, 1 )\n"
                 "socket_read data=<0> len=<1> flag=<256> timeout=<3>\nsocket_read :    read 1 bytes\n"
                 "read count=<1>\n*\nread read( 0, -3, 1 )\n*\nread count=<1>\nreadFully m_socketState=<1> "
                 "offset=<0> len=<0> timeout=<1>\n"
                 "readFully:    read 0 bytes\nwriteInt: writeInt( -66052 )\nwrite: write( ff, 4 )\n"
                 "writeShort: writeShort( 74565 )\nwrite: write( 23, 2 )\nwriteByte: write( fe, 1 )\n"
                 "writeString : writeString( %s )\nwrite: write( 25, 2 )\n"
                 "writeString : writeString(  )\nwrite: write( 0, 0 )\n");
    EXPECT_EQ(std::string(data, data + 6), "\xab\0\1\2\0\3"s);
    socket.close();
    char answer[16];
    EXPECT_EQ(std::string(answer, ::recv(link.peer, answer, sizeof answer, MSG_WAITALL)),
              "\xff\xfe\xfd\xfc\x23\x45\xfe%s");
}

TEST(ASocketTest, PeerThatClosesInAFrameIsToldAndNothingPassesAfterwards)
{
    Link link;
    link.socket.setStallLimit(1); // a message that ends too soon hasn't stalled
    link.send("123");
    ::close(link.peer);
    EXPECT_PRED2(matches, toldBy(link.socket, &ASocket::readInt, 1),
                 "0 77 3 *socket_read Connection closed by peer.readInt: failed count = 0\nreadInt: read "
                 "value = 77\n");
    EXPECT_EQ(toldBy(link.socket, &ASocket::readShort, 1),
              "-1 77 3 readShort: timeout = 1\nreadFully m_socketState=<3> offset=<0> len=<2> timeout=<1>\n"
              "readShort: failed count = -1\nreadShort: read value = 77\n");
    EXPECT_EQ(told([&] {
                  EXPECT_EQ(link.socket.read(nullptr, 0, 1, 1), 0);
                  link.socket.writeInt(1);
                  link.socket.writeByte(1);
              }),
              "read m_socketState=<3> offset=<0> len=<1> timeout=<1>\nwriteInt: writeInt( 1 )\n");
}

TEST(ASocketTest, TimeOutComesNoSoonerThanAskedInSpiteOfSignalsAndOfADescriptorAbove1024)
{
    limitDescriptors(4096);
    Link link;
    ASocket high(::fcntl(link.end, F_DUPFD_CLOEXEC, 2000), link.address);
    high.setLog(link.log);
    static int s_peer = -1, s_signals = 0;
    s_peer = link.peer;
    link.send("\0\1"s);
    interruptWith([](int) {
        if (++s_signals % 20 == 0)
            ::send(s_peer, "\2\3", 2, 0);
    });
    const std::string complaint = "Select failed: Interrupted system call\nsocket_read Select failed\n";
    const unsigned int inMillisecondsAllZero = 1U << 29; // in the 32 bits that poll takes
    EXPECT_PRED2(matches, toldBy(high, &ASocket::readInt, inMillisecondsAllZero),
                 "4 66051 1 *read returned 2, 2 bytes*len=<2>*" + complaint + complaint + complaint +
                     complaint + "*read returned 2, 4 bytes have been read.\n*");
    ::ualarm(0, 0);
    for (const rlim_t limit : {4096, 0}) { // none, as a sandbox allows
        const auto start = std::chrono::steady_clock::now();
        EXPECT_PRED2(matches, told([&] {
                         limitDescriptors(limit);
                         unsigned char byte = 0;
                         EXPECT_EQ(high.socket_read(&byte, 1, 0, 1), -1);
                         limitDescriptors(4096);
                     }),
                     "*timeout=<1>\nsocket_read select timed out.\n");
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    }
    EXPECT_EQ(high.getSocketState(), ASocket::CONNECTED);
}

TEST(ASocketTest, SendsAllOf64MebibytesInSpiteOfSignals)
{
    Link link;
    std::vector<unsigned char> sent(std::size_t{64} << 20), received(sent.size());
    for (std::size_t i = 0; i < sent.size(); ++i)
        sent[i] = static_cast<unsigned char>(i * 2654435761U >> 24);
    std::thread reader([&] {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr); // a signal here would end the receive
        ::usleep(100'000);                         // while the sender waits
        ::recv(link.peer, received.data(), received.size(), MSG_WAITALL);
    });
    static int s_signalsLeft;
    s_signalsLeft = 10; // more of them could hold a slow machine up for ever
    interruptWith([](int) {
        if (--s_signalsLeft == 0)
            ::ualarm(0, 0);
    });
    told([&] { link.socket.write(sent.data(), static_cast<int>(sent.size())); });
    ::ualarm(0, 0);
    link.socket.close();
    reader.join();
    EXPECT_TRUE(received == sent);
}

TEST(ASocketTest, OperationThatFailsGivesUpWithIoError)
{
    Link link;
    const std::string badDescriptor = "*>\nSelect failed: Bad file descriptor\nsocket_read Select failed\n";
    const std::tuple<int, std::function<void(ASocket&)>, std::string> rows[] = {
        {-1, [](auto& s) { s.socket_read(nullptr, 1, 0, 5); }, badDescriptor},
        {999, [](auto& s) { s.socket_read(nullptr, 1, 0, ~0U); }, badDescriptor},
        {::dup(0), [](auto& s) { s.socket_read(nullptr, -1, 0, 0); },
         "*Socket recv failed: Invalid argument\nsocket_read Socket recv failed count=<-1>\n"},
        {::dup(0), [](auto& s) { s.write(nullptr, -1); },
         "*( 0, -1 )\nSocket write failed: Invalid argument\n"}};
    for (const auto& [descriptor, operation, expected] : rows) {
        ASocket socket(descriptor, link.address);
        socket.setLog(link.log);
        EXPECT_PRED2(matches, told([&, call = operation] { call(socket); }), expected);
        EXPECT_EQ(socket.getSocketState(), ASocket::IO_ERROR);
    }
    bool hasComplained = false; // for which a cancellation waits
    told([&] { hasComplained = returnsWhenCancelled([&] { ASocket(link.socket).write(nullptr, -1); }); });
    EXPECT_TRUE(hasComplained);
}

TEST(ASocketTest, WhatIsThereIsReadAtOnce)
{
    Link link;
    link.send("abc");
    unsigned char data[8] = {};
    EXPECT_EQ(told([&] {
                  EXPECT_EQ(link.socket.readAvailable(data, 0, 5), -1);
                  EXPECT_EQ(link.socket.readAvailable(data, 2, 5), 2);
                  EXPECT_EQ(link.socket.readAvailable(data + 2, 6, 0), 1);
              }),
              "socket_read data=<0> len=<2> flag=<0> timeout=<5>\nsocket_read :    read 2 bytes\n"
              "socket_read data=<0> len=<6> flag=<0> timeout=<0>\nsocket_read :    read 1 bytes\n");
    EXPECT_STREQ(reinterpret_cast<char*>(data), "abc");
    EXPECT_TRUE(link.socket.shutDown());
    EXPECT_PRED2(matches, toldBy(link.socket, &ASocket::readByte, 5), "0 77 3 *");
    link.socket.close();
    EXPECT_FALSE(link.socket.shutDown());
    EXPECT_EQ(told([&] { EXPECT_EQ(link.socket.readAvailable(data, 8, 5), -1); }), "");
}

TEST(ASocketTest, StallLimitEndsAMessageThatHasBegunAndNoOther)
{
    Link link;
    EXPECT_TRUE(link.socket.setStallLimit(1));
    const std::jthread late = link.sendLater(1'500'000, "\7abc");
    // Without a complaint in between; but with a longer time-out the limit holds all the same.
    EXPECT_PRED2(matches, toldBy(link.socket, &ASocket::readByte, 0),
                 "1 7 1 *timeout=<0>\nsocket_read :    read 1 bytes\n*");
    EXPECT_PRED2(matches, toldBy(link.socket, &ASocket::readInt, 600),
                 "-1 77 5 *select timed out.\nreadInt: failed count = -1\n*");
    Link blocked;
    blocked.socket.setStallLimit(1);
    const std::vector<unsigned char> data(std::size_t{64} << 20);
    EXPECT_PRED2(matches, told([&] { blocked.socket.write(data.data(), static_cast<int>(data.size())); }),
                 "*\nSocket write failed: Resource temporarily unavailable\n");
    EXPECT_EQ(blocked.socket.getSocketState(), ASocket::IO_ERROR);
    EXPECT_FALSE(ASocket().setStallLimit(1));
    Link plain; // with a time-out that its program sets
    timeval limit{1, 0};
    for (const int option : {SO_RCVTIMEO, SO_SNDTIMEO})
        ::setsockopt(plain.end, SOL_SOCKET, option, &limit, sizeof limit);
    plain.send("\0\1"s);
    const std::jthread rest = plain.sendLater(3'500'000, "\2\3");
    EXPECT_PRED2(matches, toldBy(plain.socket, &ASocket::readInt, 0),
                 "4 66051 1 *\nSocket recv failed: Resource temporarily unavailable\n*");
    plain.socket.setStallLimit(0);
    socklen_t size = sizeof limit;
    ::getsockopt(plain.end, SOL_SOCKET, SO_SNDTIMEO, &limit, &size);
    EXPECT_EQ(limit.tv_sec + limit.tv_usec, 0);
}

class Overriding : public ASocket {
public:
    void write(const unsigned char*, int len) override { std::printf("write %d ", len); }
    void close() override { std::printf("close "); }
    int readFully(unsigned char*, int, int len, unsigned int) override { return len; }
};

TEST(ASocketTest, OverridesReachTheInnerCalls)
{
    Overriding socket;
    EXPECT_PRED2(
        matches,
        toldBy(socket, &ASocket::readInt, 5) + toldBy(socket, &ASocket::readShort, 5) +
            toldBy(socket, &ASocket::readByte, 5) + told([&] {
                static_cast<AOutputStream&>(socket).writeInt(1);
                socket.writeShort(1);
                socket << "abc";
                EXPECT_THROW(socket.createIPSocket(nullptr, 1), GorvSocketException);
            }),
        "4 0 0 2 0 0 1 77 0 write 4 write 2 write 3 *createIPSocket host info not found ip=\"(null)\"\n\n"
        "close host info not found: Invalid argument\n");
}

} // namespace
