#include "ASocket.h"

#include "ALog.h"
#include "GorvSocketException.h"
#include "support/Files.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <regex>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <thread>

using namespace std::string_literals;

namespace {

/// Replace the operation and source line that begin a message by the operation alone.
std::string compact(const std::string& text)
{
    return std::regex_replace(text, std::regex("( -)?ASocket::(\\w+):[1-9][0-9]*"), "$2");
}

/// What @p call prints: standard output, compacted, then standard error.
std::string printed(const std::function<void()>& call)
{
    CapturedStream output(stdout);
    CapturedStream error(stderr);
    call();
    const std::string complaints = error.text();
    return compact(output.text()) + complaints;
}

std::string times(int count, const std::string& text)
{
    return count == 0 ? "" : text + times(count - 1, text);
}

void limitDescriptors(rlim_t count)
{
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = count;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

struct Listener {
    Listener()
    {
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = ::inet_addr("127.0.0.2");
        socklen_t size = sizeof address;
        ::bind(descriptor, reinterpret_cast<sockaddr*>(&address), size);
        ::listen(descriptor, 4);
        ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size);
    }
    ~Listener() { ::close(descriptor); }
    int port() const { return ntohs(address.sin_port); }

    int descriptor = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
};

/// A connection with a raw end, the peer, and a logging socket on the other end.
struct Link {
    Link()
    {
        log.setShowTimestamp(false);
        socket.setLog(log);
    }
    ~Link()
    {
        ::close(peer);
        std::fclose(file);
        std::free(text);
    }
    int connect()
    {
        const Listener listener;
        ::connect(peer, reinterpret_cast<const sockaddr*>(&listener.address), sizeof listener.address);
        return ::accept(listener.descriptor, nullptr, nullptr);
    }
    void send(const std::string& bytes) const { ::send(peer, bytes.data(), bytes.size(), 0); }
    /// All that reaches the peer until the socket closes.
    std::string received() const
    {
        char data[256];
        return {data, static_cast<std::size_t>(::recv(peer, data, sizeof data, MSG_WAITALL))};
    }
    /// The log lines since the last call.
    std::string lines()
    {
        std::fflush(file);
        const std::string all = compact({text, length});
        return all.substr(std::exchange(taken, all.size()));
    }

    int peer = ::socket(AF_INET, SOCK_STREAM, 0);
    int descriptor = connect();
    sockaddr_in address{};
    char* text = nullptr;
    std::size_t length = 0;
    std::size_t taken = 0;
    FILE* file = ::open_memstream(&text, &length);
    ALog log{"", file};
    ASocket socket{descriptor, address};
};

using Outcome = std::pair<int, int>; // result and value

template <auto operation, typename Value>
Outcome receive(ASocket& socket, unsigned int timeout)
{
    Value value = 77;
    const int result = (socket.*operation)(value, timeout);
    return {result, value};
}

constexpr auto receiveInt = receive<&ASocket::readInt, int>;
constexpr auto receiveShort = receive<&ASocket::readShort, short>;
constexpr auto receiveByte = receive<&ASocket::readByte, unsigned char>;

TEST(ASocket, TellsItsProgressUnlessSilentAndTakesTheLowBitsOfThePort)
{
    const Listener listener;
    const int port = listener.port() + 65536;
    const std::string target = "ip=\"127.0.0.2\" port=" + std::to_string(port) + "\n";
    const std::string always = "ASocket in constructor: " + target + "createIPSocket " + target;
    EXPECT_EQ(printed([&] { ASocket("127.0.0.2", port, true); }), always);
    EXPECT_EQ(
        printed([&] { ASocket("127.0.0.2", port); }),
        always + "createIPSocket:       connecting...\ncreateIPSocket  Successful connection to 127.0.0.2\n");
}

TEST(ASocket, FailureToConnectIsPrintedThrownAndLeavesNoDescriptor)
{
    const int port = Listener().port();
    const std::string longName(300, 'x');
    const std::tuple<const char*, std::string, std::string> rows[] = {
        {"127.0.0.2", "Unable to connect socket ip=\"127.0.0.2\" port=" + std::to_string(port) + "\n",
         "Unable to connect socket: Connection refused\n"},
        {longName.c_str(), ("host info not found ip=\"" + longName).substr(0, 255), "host info not found: "},
        {nullptr, "host info not found ip=\"(null)\"\n", "host info not found: Invalid argument\n"}};
    const int before = openDescriptors();
    for (const auto& [ip, message, complaint] : rows) {
        const std::string target =
            " ip=\""s + (ip ? ip : "(null)") + "\" port=" + std::to_string(port) + "\n";
        const std::string told = "ASocket in constructor:" + target + "createIPSocket" + target +
                                 "createIPSocket:       connecting...\ncreateIPSocket " + message +
                                 "\ncreateIPSocket Exception with message: " + message + ".\n" + complaint;
        const auto connect = [&, host = ip] { EXPECT_THROW(ASocket(host, port), GorvSocketException); };
        EXPECT_EQ(printed(connect).substr(0, told.size()), told);
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST(ASocket, WithoutADescriptorLeftConnectingAndCopyingFail)
{
    const Link link;
    ASocket socket;
    int state = ASocket::CONNECTED;
    const std::string output = printed([&] {
        limitDescriptors(3);
        state = ASocket(link.socket).getSocketState();
        EXPECT_THROW(socket.createIPSocket("h", 9), GorvSocketException);
        limitDescriptors(1024);
    });
    EXPECT_EQ(output,
              "createIPSocket ip=\"h\" port=9\ncreateIPSocket Failed to open socket ip=\"h\" port=9\n\n"
              "Failed to open socket\n: Too many open files\n");
    EXPECT_EQ(state, ASocket::IO_ERROR);
    EXPECT_EQ(socket.getSocketState(), ASocket::CONNECT_FAILED);
}

TEST(ASocket, EachCopyClosesADescriptorOfItsOwnAndConnectingAgainLosesNone)
{
    const int before = openDescriptors();
    {
        const Listener listener;
        Link link;
        {
            ASocket first(link.socket);
            ASocket second(first);
            EXPECT_EQ(::fcntl(link.peer + 1, F_GETFD), FD_CLOEXEC);
            link.socket << "a";
            printed([&] { link.socket.createIPSocket("127.0.0.2", listener.port()); });
            EXPECT_EQ(::fcntl(link.descriptor, F_GETFD), FD_CLOEXEC);
            link.send("\7");
            EXPECT_EQ(receiveByte(second, 5), Outcome(1, 7));
            first << "b";
        }
        EXPECT_EQ(link.received(), "ab");
        link.socket.close();
        EXPECT_EQ(ASocket(link.socket).getSocketState(), ASocket::CLOSED);
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST(ASocket, SendsEachKindInItsWireFormAndLogsIt)
{
    Link link;
    link.socket.writeInt(-2);
    link.socket.writeShort(74565);
    link.socket.writeByte(0xFE);
    link.socket.writeString(nullptr);
    EXPECT_EQ(&(link.socket << "%s"), &link.socket);
    link.socket.writeString(reinterpret_cast<const unsigned char*>(""));
    EXPECT_EQ(link.lines(),
              "writeInt: writeInt( -2 )\nwrite: write( ff, 4 )\nwriteShort: writeShort( 74565 )\n"
              "write: write( 23, 2 )\nwriteByte: write( fe, 1 )\nwriteString : writeString( %s )\n"
              "write: write( 25, 2 )\nwriteString : writeString(  )\nwrite: write( 0, 0 )\n");
    link.socket.close();
    EXPECT_EQ(link.received(), "\xff\xff\xff\xfe\x23\x45\xfe%s");
}

TEST(ASocket, ReceivesEachKindAndLogsEveryStep)
{
    Link link;
    unsigned char data[6] = {0xAB};
    link.send("\0\0\1\0\xff\xfe\x9\xfe\1\2\3"s);
    EXPECT_EQ(receiveInt(link.socket, 5), Outcome(4, 256));
    EXPECT_EQ(link.lines(),
              "readInt: timeout = 5\nreadFully m_socketState=<1> offset=<0> len=<4> timeout=<5>\n"
              "readFully:    about to read from socket\n"
              "socket_read data=<0> len=<4> flag=<256> timeout=<5>\n"
              "socket_read :    read 4 bytes\n"
              "readFully:    read returned 4, 4 bytes have been read.\n"
              "readFully:    read 4 bytes\nreadInt: read value = 256\n");
    EXPECT_EQ(receiveShort(link.socket, 4294968), Outcome(2, -2)); // more milliseconds than 32 bits hold
    EXPECT_TRUE(link.lines().ends_with("readFully:    read 2 bytes\nreadShort: read value = -2\n"));
    EXPECT_EQ(link.socket.readFully(data, 5, 1, 0), 1);
    EXPECT_EQ(receiveByte(link.socket, 0), Outcome(1, 254));
    EXPECT_TRUE(link.lines().ends_with("readFully:    read 1 bytes\nreadByte: read value = 254\n"));
    EXPECT_EQ(link.socket.read(data, 2, 3, 3), 3);
    EXPECT_EQ(link.socket.readFully(nullptr, 0, 0, 1), 0);
    EXPECT_EQ(link.lines(), "read m_socketState=<1> offset=<2> len=<3> timeout=<3>\nread read( ab, 2, 3 )\n"
                            "socket_read data=<0> len=<3> flag=<256> timeout=<3>\n"
                            "socket_read :    read 3 bytes\nread count=<3>\n"
                            "readFully m_socketState=<1> offset=<0> len=<0> timeout=<1>\n"
                            "readFully:    read 0 bytes\n");
    EXPECT_EQ(std::string(data, data + 6), "\xab\0\1\2\3\x9"s);
}

TEST(ASocket, UnlessConnectedRefusesEverything)
{
    Link link;
    link.socket.close();
    unsigned char byte = 0;
    EXPECT_EQ(link.socket.read(&byte, 0, 1, 1), 0);
    EXPECT_EQ(receiveShort(link.socket, 1), Outcome(-1, 77));
    EXPECT_EQ(receiveByte(link.socket, 1), Outcome(-1, 77));
    link.socket.writeInt(1);
    link.socket.writeByte(1);
    EXPECT_EQ(link.lines(),
              "read m_socketState=<2> offset=<0> len=<1> timeout=<1>\nreadShort: timeout = 1\n"
              "readFully m_socketState=<2> offset=<0> len=<2> timeout=<1>\n"
              "readShort: failed count = -1\nreadShort: read value = 77\nreadByte: timeout = 1\n"
              "readFully m_socketState=<2> offset=<0> len=<1> timeout=<1>\n"
              "readByte: read value = 77\nwriteInt: writeInt( 1 )\n");
}

TEST(ASocket, PeerMayCloseOrResetAtEveryPointOfAFrame)
{
    const std::tuple<int, int, std::string, std::string> rows[] = {
        {0, ASocket::CLOSED_BY_PEER, "", "Connection closed by peer.readInt: failed count = 0\n"},
        {-1, ASocket::IO_ERROR, "Socket recv failed: Connection reset by peer\n",
         "Socket recv failed count=<-1>\nreadInt: failed count = -1\n"}};
    for (const auto& [result, state, complaint, end] : rows) {
        for (const std::string arrived : {"", "1", "12", "123"}) {
            Link link;
            link.send(arrived);
            const linger abruptly{-result, 0};
            ::setsockopt(link.peer, SOL_SOCKET, SO_LINGER, &abruptly, sizeof abruptly);
            ::close(std::exchange(link.peer, -1));
            Outcome outcome;
            EXPECT_EQ(printed([&] { outcome = receiveInt(link.socket, arrived.size() % 2); }), complaint);
            EXPECT_EQ(outcome, Outcome(result, 77));
            EXPECT_EQ(link.socket.getSocketState(), state);
            EXPECT_TRUE(link.lines().ends_with("socket_read " + end + "readInt: read value = 77\n"));
        }
    }
}

TEST(ASocket, TimeOutComesNoSoonerThanAskedAndLeavesADescriptorAbove1024Usable)
{
    limitDescriptors(4096);
    Link link;
    ASocket high(::fcntl(link.descriptor, F_DUPFD_CLOEXEC, 2000), link.address);
    high.setLog(link.log);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(receiveByte(high, 1), Outcome(-1, 77));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_TRUE(link.lines().ends_with("socket_read select timed out.\nreadByte: read value = 77\n"));
    link.send("\1");
    EXPECT_EQ(receiveByte(high, 1), Outcome(1, 1));
}

/// Return when @p thread sleeps and has taken all that came in on @p descriptor.
void awaitSleep(pid_t thread, int descriptor)
{
    const std::string path = "/proc/self/task/" + std::to_string(thread) + "/stat";
    for (int asleep = 0, unread = 0; asleep < 3; ::usleep(2000)) {
        ::ioctl(descriptor, FIONREAD, &unread);
        asleep = unread == 0 && readFile(path).find(") S ") != std::string::npos ? asleep + 1 : 0;
    }
}

/// Let SIGUSR1 interrupt system calls.
void takeSignals()
{
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGUSR1, &action, nullptr);
}

TEST(ASocket, SignalInTheMiddleOfAReceiveLosesNothing)
{
    takeSignals();
    const std::tuple<int, int, unsigned int, std::string, std::string> rows[] = {
        {3, 1, 5, "",
         "read returned 3, 3 bytes have been read.\nreadFully:    about to read from socket\n"
         "socket_read data=<0> len=<5> flag=<256> timeout=<5>\nsocket_read :    read 5 bytes\n"
         "readFully:    read returned 5, 8 bytes have been read.\n"},
        {0, 5, 5, "Select failed: Interrupted system call\n",
         " Select failed\nsocket_read :    read 8 bytes\n"},
        {0, 5, 0, "Socket recv failed: Interrupted system call\n",
         "timeout=<0>\nsocket_read :    read 8 bytes\n"}};
    for (const auto& [early, signals, timeout, complaint, expected] : rows) {
        Link link;
        std::thread peer([&, begin = early, count = signals, reader = ::pthread_self(), id = ::gettid()] {
            link.send(std::string("12345678", begin));
            awaitSleep(id, link.descriptor);
            for (int i = 0; i < count; ++i) {
                ::pthread_kill(reader, SIGUSR1);
                awaitSleep(id, link.descriptor);
            }
            link.send("12345678" + begin);
        });
        unsigned char data[8] = {};
        EXPECT_EQ(printed([&, limit = timeout] { link.socket.readFully(data, 0, 8, limit); }),
                  times(signals, complaint));
        peer.join();
        EXPECT_EQ(std::string(data, data + 8), "12345678");
        EXPECT_NE(link.lines().find(expected), std::string::npos);
    }
}

TEST(ASocket, SendsAllOf64MebibytesThroughASmallBufferUnderConstantSignals)
{
    Link link;
    const int small = 1 << 17; // a few segments: with fewer, each waits for a delayed acknowledgement
    ::setsockopt(link.descriptor, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    std::vector<unsigned char> sent(std::size_t{64} << 20);
    for (std::size_t i = 0; i < sent.size(); ++i)
        sent[i] = static_cast<unsigned char>(i * 2654435761U >> 24);
    std::vector<unsigned char> received(sent.size());
    takeSignals();
    std::thread reader([&, writer = ::pthread_self()] {
        for (std::size_t count = 0, part = 1; part > 0 && count < sent.size(); count += part) {
            for (int i = 0; i < 5 && count < sent.size() / 64; ++i, ::usleep(1000))
                ::pthread_kill(writer, SIGUSR1);
            part = static_cast<std::size_t>(::recv(link.peer, &received[count], sent.size() - count, 0));
        }
    });
    link.socket.write(sent.data(), static_cast<int>(sent.size()));
    EXPECT_EQ(link.socket.getSocketState(), ASocket::CONNECTED);
    link.socket.close();
    reader.join();
    EXPECT_TRUE(received == sent);
}

TEST(ASocket, OperationThatFailsGivesUpWithIoError)
{
    const auto receiving = [](int length, unsigned int timeout, rlim_t limit = 1024) {
        return [=](ASocket& socket) {
            unsigned char byte = 0;
            limitDescriptors(limit);
            EXPECT_EQ(socket.socket_read(&byte, length, 0, timeout), -1);
            limitDescriptors(1024);
        };
    };
    const std::string badWait = "Select failed: Invalid argument\n";
    const std::string failed = " Socket recv failed count=<-1>\n";
    const std::tuple<int, std::function<void(ASocket&)>, std::string, std::string> rows[] = {
        {-1, receiving(1, 5), "Select failed: Bad file descriptor\n",
         "timeout=<5>\nsocket_read Select failed\n"},
        {999, receiving(1, UINT_MAX), "Select failed: Bad file descriptor\n", " Select failed\n"},
        {::dup(0), receiving(1, 5, 0), times(4, badWait), " Select failed\n"}, // 3 repetitions
        {::dup(0), receiving(1, 0), "Socket recv failed: Socket operation on non-socket\n", failed},
        {::dup(0), receiving(-1, 0), "Socket recv failed: Invalid argument\n", failed},
        {999, [](auto& s) { s.writeByte(1); }, "Socket write failed: Bad file descriptor\n",
         ": write( 1, 1 )\n"},
        {999, [](auto& s) { s.write(nullptr, -1); }, "Socket write failed: Invalid argument\n",
         ": write( 0, -1 )\n"}};
    Link link;
    for (const auto& [descriptor, operation, complaints, end] : rows) {
        ASocket socket(descriptor, link.address);
        socket.setLog(link.log);
        EXPECT_EQ(printed([&, call = operation] { call(socket); }), complaints);
        EXPECT_TRUE(link.lines().ends_with(end)) << complaints;
        EXPECT_EQ(socket.getSocketState(), ASocket::IO_ERROR);
    }
}

class Overriding : public ASocket {
public:
    void write(const unsigned char*, int len) override { calls += " write " + std::to_string(len); }
    void close() override
    {
        calls += " close";
        ASocket::close();
    }
    int readFully(unsigned char* data, int, int len, unsigned int) override
    {
        std::memset(data, 1, static_cast<std::size_t>(len));
        return len;
    }

    std::string calls;
};

TEST(ASocket, OverridesReachTheInnerCalls)
{
    Overriding socket;
    static_cast<AOutputStream&>(socket).writeInt(1);
    socket.writeShort(1);
    socket << "abc";
    EXPECT_EQ(receiveInt(socket, 5), Outcome(4, 0x01010101));
    EXPECT_EQ(receiveShort(socket, 5), Outcome(2, 0x0101));
    EXPECT_EQ(receiveByte(socket, 5), Outcome(1, 1));
    printed([&] { EXPECT_THROW(socket.createIPSocket(nullptr, 1), GorvSocketException); });
    EXPECT_EQ(socket.getSocketState(), ASocket::CLOSED);
    EXPECT_EQ(socket.calls, " write 4 write 2 write 3 close");
}

TEST(ASocket, SpeaksTheWireFormatWithNetcat)
{
    Listener listener;
    const std::string netcat = "nc -N 127.0.0.2 " + std::to_string(listener.port());
    FILE* output = ::popen(("printf '\\000\\000\\001\\000' | " + netcat).c_str(), "re");
    {
        ASocket socket(::accept(listener.descriptor, nullptr, nullptr), listener.address);
        EXPECT_EQ(receiveInt(socket, 5), Outcome(4, 256));
        socket.writeInt(-2);
        socket << "xyz";
        EXPECT_EQ(receiveByte(socket, 5), Outcome(0, 77)); // its input has ended
    }
    char answer[16];
    EXPECT_EQ(std::string(answer, std::fread(answer, 1, sizeof answer, output)), "\xff\xff\xff\xfexyz");
    EXPECT_EQ(::pclose(output), 0);
}

} // namespace
