#include "ASocket.h"

#include "ALog.h"
#include "GorvSocketException.h"
#include "support/Files.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <fnmatch.h>
#include <functional>
#include <regex>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <thread>

using namespace std::string_literals;

namespace {

/// All that @p call tells: standard output, then standard error, where the sockets of this test log as well.
/// Of the operation and source line that begin a message the operation stays.
std::string told(const std::function<void()>& call) {
    CapturedStream output(stdout);
    CapturedStream error(stderr);
    call();
    const std::string complaints = error.text();
    const std::regex prefix("( -)?ASocket::(\\w+):[1-9][0-9]*");
    return std::regex_replace(output.text() + complaints, prefix, "$2");
}

/// What the receiving @p operation tells after its result, the value and the state that it leaves.
template <typename Value>
std::string toldBy(ASocket& socket, int (ASocket::*operation)(Value&, unsigned int), unsigned int timeout) {
    return told([&] {
        Value value = 77;
        const int result = (socket.*operation)(value, timeout);
        std::printf("%d %d %d ", result, value, socket.getSocketState());
    });
}

/// Whether @p text is @p pattern, in which "*" stands for anything.
bool matches(const std::string& text, const std::string& pattern) {
    return ::fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
}

void limitDescriptors(rlim_t count) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = count;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

/// A logging socket on one end of a connection and a raw descriptor, the peer, on the other.
struct Link {
    Link() {
        log.setShowTimestamp(false);
        socket.setLog(log);
    }
    ~Link() {
        ::close(peer);
        ::close(listener);
    }
    int connect() {
        socklen_t size = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        ::bind(listener, generic, size);
        ::listen(listener, 4);
        ::getsockname(listener, generic, &size);
        ::connect(peer, generic, size);
        return accept();
    }
    int accept() const { return ::accept(listener, nullptr, nullptr); }
    int port() const { return ntohs(address.sin_port); }
    void send(const std::string& bytes) const { ::send(peer, bytes.data(), bytes.size(), 0); }

    int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    int peer = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{AF_INET, 0, {::inet_addr("127.0.0.2")}, {}};
    int end = connect();
    ALog log{"", stderr};
    ASocket socket{end, address};
};

TEST(ASocket, ConnectingTellsItsProgressOrThrowsWhatItPrintedAndLosesNoDescriptor) {
    const int closed = Link().port();
    const int before = openDescriptors();
    {
        const Link link;
        const int port = link.port() + 65536; // the low 16 bits count
        const std::string target = " ip=\"127.0.0.2\" port=" + std::to_string(port) + "\n";
        const std::string begun = "ASocket in constructor:" + target + "createIPSocket" + target;
        EXPECT_EQ(told([&] { ASocket("127.0.0.2", port, true); }), begun);
        EXPECT_EQ(told([&] { ASocket("127.0.0.2", port); }),
                  begun + "createIPSocket:       connecting...\n"
                          "createIPSocket  Successful connection to 127.0.0.2\n");
        ASocket quiet;
        quiet.setSilent(true);
        EXPECT_EQ(told([&] { quiet.createIPSocket("127.0.0.2", port); }), "createIPSocket" + target);
    }
    const std::string longName(300, 'x');
    const std::tuple<const char*, std::string, std::string> rows[] = {
        {"127.0.0.2", "Unable to connect socket ip=\"127.0.0.2\" port=" + std::to_string(closed) + "\n",
         "Unable to connect socket: Connection refused\n"},
        {longName.c_str(), ("host info not found ip=\"" + longName).substr(0, 255), "host info not found: *"},
        {nullptr, "host info not found ip=\"(null)\"\n", "host info not found: Invalid argument\n"}};
    for (const auto& [ip, message, complaint] : rows)
        EXPECT_PRED2(matches, told([&, host = ip] { EXPECT_THROW(ASocket(host, closed), GorvSocketException); }),
                     "*connecting...\ncreateIPSocket " + message +
                         "\ncreateIPSocket Exception with message: " + message + ".\n" + complaint);
    EXPECT_EQ(openDescriptors(), before);
}

TEST(ASocket, EachCopyClosesADescriptorOfItsOwnAndConnectingAgainLosesNone) {
    const int before = openDescriptors();
    {
        Link link;
        ASocket copy{ASocket(link.socket)};
        ASocket again(copy);
        EXPECT_EQ(::fcntl(link.end + 1, F_GETFD), FD_CLOEXEC);
        told([&] { link.socket.createIPSocket("127.0.0.2", link.port()); });
        EXPECT_EQ(::fcntl(link.end, F_GETFD), FD_CLOEXEC);
        link.send("\7");
        EXPECT_EQ(toldBy(copy, &ASocket::readByte, 5), "1 7 1 ");
        EXPECT_EQ(told([&] {
                      limitDescriptors(3);
                      std::printf("%d ", ASocket(copy).getSocketState());
                      EXPECT_THROW(copy.createIPSocket("h", 9), GorvSocketException);
                      limitDescriptors(1024);
                  }),
                  "5 createIPSocket ip=\"h\" port=9\ncreateIPSocket Failed to open socket ip=\"h\" port=9\n"
                  "\nFailed to open socket\n: Too many open files\n");
        EXPECT_EQ(copy.getSocketState(), ASocket::CONNECT_FAILED);
        told([&] { EXPECT_THROW(again.createIPSocket(nullptr, 9), GorvSocketException); });
        EXPECT_EQ(ASocket(again).getSocketState(), ASocket::CLOSED);
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST(ASocket, SpeaksTheWireFormatWithNetcatAndLogsEveryStep) {
    Link link; // lends its log
    const std::string netcat = "printf '\\0\\0\\1\\0\\377\\376\\376\\3\\1\\2' | nc -N 127.0.0.2 ";
    FILE* output = ::popen((netcat + std::to_string(link.port())).c_str(), "re");
    unsigned char data[6] = {0xAB};
    {
        ASocket socket(link.accept(), link.address);
        socket.setLog(link.log);
        EXPECT_EQ(toldBy(socket, &ASocket::readInt, 5),
                  "4 256 1 readInt: timeout = 5\n"
                  "readFully m_socketState=<1> offset=<0> len=<4> timeout=<5>\n"
                  "readFully:    about to read from socket\n"
                  "socket_read data=<0> len=<4> flag=<256> timeout=<5>\nsocket_read :    read 4 bytes\n"
                  "readFully:    read returned 4, 4 bytes have been read.\n"
                  "readFully:    read 4 bytes\nreadInt: read value = 256\n");
        EXPECT_PRED2(matches, toldBy(socket, &ASocket::readShort, 5),
                     "2 -2 1 readShort: timeout = 5\n*\nreadShort: read value = -2\n");
        EXPECT_PRED2(matches, toldBy(socket, &ASocket::readByte, 0),
                     "1 254 1 readByte: timeout = 0\n*\nreadByte: read value = 254\n");
        const std::string lines = told([&] {
            EXPECT_EQ(socket.readFully(data, 5, 1, 0), 1);
            EXPECT_EQ(socket.read(data, 2, 2, 3), 2);
            EXPECT_EQ(socket.readFully(nullptr, 0, 0, 1), 0);
            socket.writeInt(-2);
            socket.writeShort(74565);
            socket.writeByte(0xFE);
            socket.flush(); // nothing to tell
            socket.writeString(nullptr);
            socket << "%s" << reinterpret_cast<const unsigned char*>("");
        });
        EXPECT_EQ(lines.substr(lines.find("read m_")),
                  "read m_socketState=<1> offset=<2> len=<2> timeout=<3>\nread read( ab, 2, 2 )\n"
                  "socket_read data=<0> len=<2> flag=<256> timeout=<3>\nsocket_read :    read 2 bytes\n"
                  "read count=<2>\nreadFully m_socketState=<1> offset=<0> len=<0> timeout=<1>\n"
                  "readFully:    read 0 bytes\nwriteInt: writeInt( -2 )\nwrite: write( ff, 4 )\n"
                  "writeShort: writeShort( 74565 )\nwrite: write( 23, 2 )\nwriteByte: write( fe, 1 )\n"
                  "writeString : writeString( %s )\nwrite: write( 25, 2 )\n"
                  "writeString : writeString(  )\nwrite: write( 0, 0 )\n");
    }
    EXPECT_EQ(std::string(data, data + 6), "\xab\0\1\2\0\3"s);
    char answer[16];
    EXPECT_EQ(std::string(answer, std::fread(answer, 1, sizeof answer, output)), "\xff\xff\xff\xfe\x23\x45\xfe%s");
    EXPECT_EQ(::pclose(output), 0);
}

TEST(ASocket, PeerMayCloseOrResetAtEveryPointOfAFrameAndNothingPassesAfterwards) {
    const std::string outcomes[] = {"0 77 3 *socket_read Connection closed by peer.readInt: failed count = 0\n",
                                    "-1 77 5 *Socket recv failed: Connection reset by peer\n"
                                    "socket_read Socket recv failed count=<-1>\nreadInt: failed count = -1\n"};
    for (const int abruptly : {0, 1}) {
        for (const std::string arrived : {"", "1", "12", "123"}) {
            Link link;
            link.send(arrived);
            const linger option{abruptly, 0};
            ::setsockopt(link.peer, SOL_SOCKET, SO_LINGER, &option, sizeof option);
            ::close(std::exchange(link.peer, -1));
            EXPECT_PRED2(matches, toldBy(link.socket, &ASocket::readInt, arrived.size() % 2),
                         outcomes[abruptly] + "readInt: read value = 77\n");
            EXPECT_PRED2(matches, toldBy(link.socket, &ASocket::readShort, 1) + told([&] {
                                      EXPECT_EQ(link.socket.read(nullptr, 0, 1, 1), 0);
                                      link.socket.writeInt(1);
                                      link.socket.writeByte(1);
                                  }),
                         "-1 77 [35] readShort: timeout = 1\nreadFully m_socketState=<[35]> offset=<0> "
                         "len=<2> timeout=<1>\nreadShort: failed count = -1\nreadShort: read value = 77\n"
                         "read m_socketState=<[35]> offset=<0> len=<1> timeout=<1>\nwriteInt: writeInt( 1 )\n");
        }
    }
}

TEST(ASocket, TimeOutComesNoSoonerThanAskedAndLeavesADescriptorAbove1024Usable) {
    limitDescriptors(4096);
    Link link;
    ASocket high(::fcntl(link.end, F_DUPFD_CLOEXEC, 2000), link.address);
    high.setLog(link.log);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_PRED2(matches, toldBy(high, &ASocket::readByte, 1),
                 "-1 77 1 *socket_read select timed out.\nreadByte: read value = 77\n");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    link.send("\1");
    EXPECT_PRED2(matches, toldBy(high, &ASocket::readByte, 1), "1 1 1 *");
}

/// Interrupt the main thread @p count times, each when it sleeps and has taken all of @p descriptor; give up
/// when that takes unreasonably long.
void interrupt(int count, int descriptor) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGUSR1, &action, nullptr);
    // The thread's own entry, because emulators make up the one of the process.
    const std::string stat = "/proc/self/task/" + std::to_string(::getpid()) + "/stat";
    for (int asleep = 0, unread = 0, polls = 0; count >= 0 && polls < 5000; ++polls, ::usleep(2000)) {
        ::ioctl(descriptor, FIONREAD, &unread);
        asleep = unread == 0 && readFile(stat).find(") S ") != std::string::npos ? asleep + 1 : 0;
        if (asleep == 3 && count-- > 0) ::tgkill(::getpid(), ::getpid(), SIGUSR1);
        asleep %= 3;
    }
}

TEST(ASocket, SignalsInTheMiddleOfAReceiveLoseNothing) {
    const std::tuple<unsigned int, std::string> rows[] = {
        {0, "Socket recv failed: Interrupted system call\n"},
        // in milliseconds, 32 bits of this time-out are 0
        {1U << 29, "Select failed: Interrupted system call\nsocket_read Select failed\n"}};
    for (const auto& [timeout, complaint] : rows) {
        Link link;
        std::thread peer([&] {
            link.send("123");
            interrupt(5, link.end);
            link.send("45678");
        });
        unsigned char data[9] = {};
        EXPECT_PRED2(matches, told([&, limit = timeout] { link.socket.readFully(data, 0, 8, limit); }),
                     "*read returned 3, 3 bytes have been read.\nreadFully:    about to read from socket\n"
                     "socket_read data=<0> len=<5> flag=<256> timeout=<" +
                         std::to_string(timeout) + ">\n" + complaint + complaint + complaint + complaint +
                         "socket_read :    read 5 bytes\nreadFully:    read returned 5, 8 bytes have been read.\n*");
        peer.join();
        EXPECT_STREQ(reinterpret_cast<char*>(data), "12345678");
    }
}

TEST(ASocket, SendsAllOf64MebibytesThroughASmallBufferInSpiteOfSignals) {
    Link link;
    const int small = 1 << 17; // a few segments: with fewer, each waits for a delayed acknowledgement
    ::setsockopt(link.end, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    std::vector<unsigned char> sent(std::size_t{64} << 20);
    for (std::size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<unsigned char>(i * 2654435761U >> 24);
    std::vector<unsigned char> received(sent.size());
    std::thread reader([&] {
        interrupt(3, link.end);
        ::recv(link.peer, received.data(), received.size(), MSG_WAITALL);
    });
    told([&] { link.socket.write(sent.data(), static_cast<int>(sent.size())); });
    EXPECT_EQ(link.socket.getSocketState(), ASocket::CONNECTED);
    link.socket.close();
    reader.join();
    EXPECT_TRUE(received == sent);
}

TEST(ASocket, OperationThatFailsGivesUpWithIoError) {
    const std::string badDescriptor = "*Select failed: Bad file descriptor\nsocket_read Select failed\n";
    const std::string badWait = "Select failed: Invalid argument\nsocket_read Select failed\n";
    const std::string failed = "\nsocket_read Socket recv failed count=<-1>\n";
    Link link;
    unsigned char byte = 0;
    const auto receiving = [&](int length, unsigned int timeout, rlim_t limit = 1024) {
        return [=, &byte](ASocket& socket) {
            limitDescriptors(limit);
            EXPECT_EQ(socket.socket_read(&byte, length, 0, timeout), -1);
            limitDescriptors(1024);
        };
    };
    const std::tuple<int, std::function<void(ASocket&)>, std::string> rows[] = {
        {-1, receiving(1, 5), badDescriptor},
        {999, receiving(1, UINT_MAX), badDescriptor},
        {::dup(0), receiving(1, 5, 0), "*timeout=<5>\n" + badWait + badWait + badWait + badWait},
        {::dup(0), receiving(1, 0), "*Socket recv failed: Socket operation on non-socket" + failed},
        {::dup(0), receiving(-1, 0), "*Socket recv failed: Invalid argument" + failed},
        {999, [](auto& s) { s.writeByte(1); }, "*( 1, 1 )\nSocket write failed: Bad file descriptor\n"},
        {::dup(link.end), [](auto& s) { s.write(nullptr, -1); }, "*( 0, -1 )\nSocket write failed: Invalid argument\n"},
        {::dup(link.end), [](auto& s) { s.write(nullptr, 1); }, "*( 0, 1 )\nSocket write failed: Bad address\n"}};
    for (const auto& [descriptor, operation, expected] : rows) {
        ASocket socket(descriptor, link.address);
        socket.setLog(link.log);
        EXPECT_PRED2(matches, told([&, call = operation] { call(socket); }), expected);
        EXPECT_EQ(socket.getSocketState(), ASocket::IO_ERROR);
    }
}

class Overriding : public ASocket {
public:
    void write(const unsigned char*, int len) override { std::printf("write %d ", len); }
    void close() override { std::printf("close "); }
    int readFully(unsigned char*, int, int len, unsigned int) override { return len; }
};

TEST(ASocket, OverridesReachTheInnerCalls) {
    Overriding socket;
    EXPECT_EQ(toldBy(socket, &ASocket::readInt, 5) + toldBy(socket, &ASocket::readShort, 5) +
                  toldBy(socket, &ASocket::readByte, 5),
              "4 0 0 2 0 0 1 77 0 ");
    const std::string lines = told([&] {
        static_cast<AOutputStream&>(socket).writeInt(1);
        socket.writeShort(1);
        socket << "abc";
        EXPECT_THROW(socket.createIPSocket(nullptr, 1), GorvSocketException);
    });
    EXPECT_PRED2(matches, lines, "write 4 write 2 write 3 *close host info not found*");
}

} // namespace
