#include "AInteger.h"
#include "Descriptor.h"
#include "Protocol.h"
#include "support/Files.h"
#include "support/ProcessMemory.h"

#include <arpa/inet.h>
#include <atomic>
#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <regex>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;
using namespace protocol;

/// What the load is divided by: runs under a sanitizer or an emulator look for faults of another kind.
const int kScale = [] {
    const char* const asked = std::getenv("GORV_TEST_LOAD");
    const int normal = ProcessMemory::canBeSearched() ? 1 : 20;
    return asked == nullptr ? normal : std::max(std::atoi(asked), 1);
}();
constexpr const char* kPassword = "wonderland";
constexpr const char* kAccounts =
    "alice:salt$8808161c460734fc7bb91a1d1a26e7a2eb75ef0b18ce8538c05218d503e23c36:0:auto\n"
    "bob:salt$8e7f7bd5a1dc7663c6ccf7811c8b9123e0ac587c8999d987e0da176f5a980118:0:auto\n";

struct Answer {
    bool operator==(const Answer&) const = default;
    int result = -1; // -1: the daemon closed the connection
    std::string text;
};

/// A raw connection to the daemon.
class Peer {
public:
    explicit Peer(int port)
    {
        const sockaddr_in address = {
            AF_INET, htons(static_cast<std::uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
        const linger abrupt = {1, 0}; // a vanished client, and no port kept waiting
        ::setsockopt(m_socket.get(), SOL_SOCKET, SO_LINGER, &abrupt, sizeof abrupt);
        const timeval limit = {60, 0};
        ::setsockopt(m_socket.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        ::connect(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
    void send(std::string_view bytes) const
    {
        ::send(m_socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    Answer receive() const
    {
        unsigned char header[kHeaderSize];
        if (::recv(m_socket.get(), header, sizeof header, MSG_WAITALL) != kHeaderSize)
            return {};
        Answer answer;
        answer.result = AInteger::decodeShort(header, 0);
        answer.text.resize(static_cast<std::size_t>(AInteger::decodeInt(header, 2)));
        const ssize_t count = ::recv(m_socket.get(), answer.text.data(), answer.text.size(), MSG_WAITALL);
        return count == static_cast<ssize_t>(answer.text.size()) ? answer : Answer{};
    }
    /// Send no more, and take whatever comes until the daemon has closed.
    void finish() const
    {
        ::shutdown(m_socket.get(), SHUT_WR);
        for (char bytes[256]; ::recv(m_socket.get(), bytes, sizeof bytes, 0) > 0;) {
        }
    }
    Answer ask(short operation, const std::vector<std::string_view>& fields = {}) const
    {
        send(frame(operation, joinFields(fields)));
        return receive();
    }
    Answer logIn() const { return ask(Login, {"alice", kPassword}); }

private:
    Descriptor m_socket{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
};

void inParallel(unsigned count, const std::function<void(unsigned)>& step)
{
    std::vector<std::jthread> threads;
    for (unsigned i = 0; i < count; ++i)
        threads.emplace_back(step, i);
}

/// A daemon of its own for each test, on a PAM stack in a scratch folder.
class ConsoleTest : public testing::Test {
protected:
    ConsoleTest()
    {
        std::ofstream(m_dir.path("accounts")) << kAccounts;
        std::ofstream service(m_dir.path("test"));
        for (const char* type : {"auth", "account", "session"})
            service << type << " required " GORV_DEMO_MODULE " accounts=" << m_dir.path("accounts")
                    << " record=" << m_dir.path("record") << '\n';
    }
    ~ConsoleTest() override
    {
        if (m_pid > 0) {
            EXPECT_EQ(stop(), 0);
        }
    }

    void start(const std::string& options = "", int descriptors = 4096)
    {
        const std::string command =
            "cd " + m_dir.path().string() + " && ulimit -n " + std::to_string(descriptors) +
            " && exec " CONSOLED " -port 0 -service test -confdir $PWD " + options + " >stdout 2>stderr";
        m_pid = ::fork();
        if (m_pid == 0) {
            ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            ::_exit(127);
        }
        ASSERT_TRUE(eventually([&] {
            return std::sscanf(written("stdout").c_str(), "consoled: listening on port %d\n", &m_port) == 1;
        })) << written("stdout");
    }
    /// End the daemon as an administrator would. Returns what waitpid() tells of it.
    int stop()
    {
        int status = -1;
        ::kill(m_pid, SIGTERM);
        ::waitpid(std::exchange(m_pid, -1), &status, 0);
        return status;
    }
    /// How much the daemon has of something: "fd" for descriptors, "task" for threads.
    long count(const char* what) const
    {
        return std::distance(
            std::filesystem::directory_iterator("/proc/" + std::to_string(m_pid) + "/" + what), {});
    }
    std::string ofProcess(const char* file) const
    {
        return readFile("/proc/" + std::to_string(m_pid) + "/" + file);
    }
    std::string written(const char* file) const { return readFile(m_dir.path(file)); }
    /// How many sessions the daemon has registered, that of the asking peer included.
    static int sessions(const Peer& peer) { return std::stoi(peer.ask(Call, {"console_sessions", ""}).text); }
    static bool eventually(const std::function<bool()>& condition)
    {
        for (int i = 0; i < 1000; ++i, std::this_thread::sleep_for(20ms))
            if (condition())
                return true;
        return false;
    }
    /// What the client prints on standard output, and its exit status.
    std::string runClient(const std::string& arguments, const std::string& input) const
    {
        const std::string command = "(printf '%s\\n' '" + input + "' | " CONSOLE " " + arguments + " -port " +
                                    std::to_string(m_port) + " 2>/dev/null; echo $?) >" +
                                    m_dir.path("client");
        EXPECT_EQ(std::system(command.c_str()), 0);
        return written("client");
    }

    TempDir m_dir;
    pid_t m_pid = -1;
    int m_port = 0;
};

TEST_F(ConsoleTest, ClientWalksThroughASession)
{
    start("-log log -trace trace -level 3");
    const std::string longLine =
        "wonderland\nget hostname\nset k " + std::string(5000, 'x') + " run id\nget k";
    const std::tuple<const char*, std::string, const char*> runs[] = {
        {"-user alice -c 'set hostname box-17; set hostname box-17; get hostname; event "
         "gui_event_config_changed now; "
         "call console_sessions; run system; logout; get hostname'",
         kPassword, "logged in\nset\nset\nbox-17\nraised\n1\nLinux .*\nlogged out\n0\n"},
        {"-user alice -c 'get missing'", kPassword, "logged in\n1\n"},
        {"-user alice -c 'run rm'", kPassword, "logged in\n1\n"},
        {"-user alice -c who", "wrong", "1\n"},
        {"-user alice", longLine, "logged in\nbox-17\n1\n"}, // the long line is refused as a whole
        {"-c who", "", "1\n"},
        {"-c dance", "", "1\n"},
        {"-port 0", "", "2\n"},
        {"-port 1 -c who", "", "3\n"},
    };
    for (const auto& [arguments, input, outcome] : runs) {
        const std::string output = runClient(arguments, input);
        EXPECT_TRUE(std::regex_match(output, std::regex(outcome))) << arguments << output;
    }
    const std::regex login("consoled - 127\\.0\\.0\\.1:\\d+: alice logged in, session 1\n");
    EXPECT_TRUE(std::regex_search(written("log"), login));
    EXPECT_NE(written("trace").find(": operation 7\n"), std::string::npos);
    EXPECT_NE(written("record").find("close user=alice rhost=127.0.0.1 INTERFACE_IP=127.0.0.1"),
              std::string::npos);
}

TEST_F(ConsoleTest, WrongPasswordAndUnknownUserAreAnsweredAlikeAndThreeTriesAreAll)
{
    start();
    const Peer wrong(m_port), unknown(m_port);
    for (int i = 0; i < 3; ++i) {
        const Answer answer = wrong.ask(Login, {"alice", "looking-glass"});
        EXPECT_EQ(answer.result, Refused);
        EXPECT_EQ(answer, unknown.ask(Login, {"nobody", kPassword}));
    }
    EXPECT_EQ(wrong.receive().result, -1);
}

TEST_F(ConsoleTest, PasswordIsNowhereAfterTheLogin)
{
    if (!ProcessMemory::canBeSearched())
        GTEST_SKIP() << "a sanitizer's own memory is searched in vain";
    start("-log log -trace trace -level 9");
    const ProcessMemory::Secret secret("a passphrase that is far too long for any small buffer");
    const ProcessMemory::Secret property("what is no secret at all and is kept on purpose");
    const std::string pid = std::to_string(m_pid);
    const std::string password = secret.text();
    const Peer peer(m_port);
    EXPECT_EQ(peer.ask(Login, {"alice", password}).result, Refused);
    EXPECT_EQ(peer.ask(Login, {"bob", password}).result, Done);
    EXPECT_FALSE(ProcessMemory::holds(secret, pid));
    EXPECT_EQ(peer.ask(Set, {"motto", property.text()}).result, Done);
    EXPECT_TRUE(ProcessMemory::holds(property, pid)); // the search works
    for (const char* file : {"log", "trace", "record", "stderr"})
        EXPECT_EQ(written(file).find(password), std::string::npos) << file;
}

TEST_F(ConsoleTest, TwoHundredClientsAreAllServedAndLeaveNothing)
{
    start();
    const Peer watcher(m_port);
    ASSERT_EQ(watcher.logIn().result, Done);
    const long descriptors = count("fd");
    const long threads = count("task");
    const int logins = std::max(25 / kScale, 1); // of each client
    std::atomic<int> served = 0;
    const auto crowd = [&](int rounds) {
        inParallel(200, [&](unsigned) {
            for (int login = 0; login < rounds; ++login) {
                const Peer peer(m_port);
                if (peer.logIn().result == Done && peer.ask(Who).result == Done &&
                    (login % 2 == 0 || peer.ask(Logout).result == Done)) // every other one just vanishes
                    ++served;
            }
        });
        EXPECT_TRUE(eventually([&] { return sessions(watcher) == 1; }));
        EXPECT_TRUE(eventually([&] { return count("fd") == descriptors && count("task") == threads; }));
        const std::string status = ofProcess("status");
        return std::stol(status.substr(status.find("VmRSS:") + 6)); // KiB
    };
    const long resident = crowd(1); // with what the daemon allocates once
    const long afterwards = crowd(logins);
    EXPECT_EQ(served, 200 * (1 + logins));
    if (kScale == 1) {
        EXPECT_LT(afterwards, resident + 4096);
    } // a sanitizer keeps freed memory
}

TEST_F(ConsoleTest, BrokenAndHostileFramesHarmNobodyEvenOnAFullDisk)
{
    start("-log /dev/full -trace /dev/full");
    const Peer steady(m_port);
    ASSERT_EQ(steady.logIn().result, Done);
    const std::string requests[] = {
        frame(Login, joinFields({"alice", kPassword})), frame(Who, ""), frame(Get, joinFields({"hostname"})),
        frame(Event, joinFields({"e", "d"})), frame(protocol::Run, joinFields({"date"}))};
    for (const std::string& whole : requests) {
        for (std::size_t cut = 1; cut < whole.size(); ++cut)
            Peer(m_port).send(std::string_view(whole).substr(0, cut)); // and vanishes
        const Peer peer(m_port);
        peer.logIn();
        peer.send(std::string_view(whole).substr(0, whole.size() - 1)); // with a login open
    }
    inParallel(4, [&](unsigned seed) {
        std::mt19937 random(seed);
        for (int i = 0; i < 25'000 / kScale; ++i) {
            std::string bytes(1 + random() % 64, '\0');
            for (char& byte : bytes)
                byte = static_cast<char>(random());
            if (i % 2 == 0)
                bytes.replace(0, 5, std::string("\0\1\0\0\0", 5)); // further in
            const Peer peer(m_port);
            peer.send(bytes);
            peer.finish();
        }
    });
    EXPECT_EQ(steady.ask(Who).result, Done);
    EXPECT_TRUE(eventually([&] { return sessions(steady) == 1; }));
    EXPECT_EQ(Peer(m_port).logIn().result, Done);
}

TEST_F(ConsoleTest, WithoutDescriptorsClientsAreRefusedAndNothingSpins)
{
    start("", 24);
    std::vector<Peer> peers;
    int refused = 0;
    for (int i = 0; i < 40; ++i) {
        const int result = peers.emplace_back(m_port).ask(Who).result;
        EXPECT_TRUE(result == NotLoggedIn || result == Busy || result == -1) << result;
        refused += result != NotLoggedIn ? 1 : 0;
    }
    EXPECT_GT(refused, 10);
    const long before = std::stol(ofProcess("schedstat")); // nanoseconds of the main thread
    std::this_thread::sleep_for(1s);
    EXPECT_LT(std::stol(ofProcess("schedstat")) - before, 500'000'000);
    peers.clear();
    EXPECT_TRUE(
        eventually([&] { return count("fd") < 16; })); // a sanitizer takes lacking ones for a broken object
    EXPECT_EQ(Peer(m_port).logIn().result, Done);
}

TEST_F(ConsoleTest, ClientThatOwesARequestIsHungUp)
{
    start("-idle 1");
    const Peer silent(m_port), stalled(m_port), trickling(m_port);
    ASSERT_EQ(silent.logIn().result, Done);
    stalled.send(std::string_view("\0\1\0", 3)); // half a header, which a blocked receive waits for
    const std::jthread trickle([&] {
        for (int i = 0; i < 12; ++i) { // always in time for the next byte, never for the request
            trickling.send(
                std::string_view("\0\1\0\0\1\0\0\0\0\0\0\0", 12).substr(static_cast<std::size_t>(i), 1));
            std::this_thread::sleep_for(400ms);
        }
    });
    for (const Peer* peer : {&silent, &stalled, &trickling})
        EXPECT_EQ(peer->receive().result, -1);
    EXPECT_TRUE(eventually([&] { return written("record").find("close ") != std::string::npos; }));
}

TEST_F(ConsoleTest, OneProgramRunsAtATimeAndTheNextAfterIt)
{
    start();
    const Peer first(m_port), second(m_port);
    ASSERT_EQ(first.logIn().result + second.logIn().result, Done);
    const long before = count("fd");
    for (const Peer* peer : {&first, &second})
        peer->send(frame(protocol::Run, joinFields({"id"})));
    const Answer one = first.receive(), other = second.receive();
    EXPECT_EQ(one.result + other.result, Done + Busy);
    EXPECT_TRUE((one.result == Done ? one : other).text.starts_with("uid="));
    EXPECT_EQ(first.ask(protocol::Run, {"disk"}).result, Done);
    EXPECT_EQ(count("fd"), before);
}

TEST_F(ConsoleTest, TerminationClosesEverySession)
{
    start("-log log");
    std::vector<Peer> peers;
    for (std::size_t i = 0; i < 10; ++i) {
        ASSERT_EQ(peers.emplace_back(m_port).logIn().result, Done);
        peers.back().send(std::string_view("\0\1\0", i % 4));
    }
    peers.front().send(frame(protocol::Run, joinFields({"id"})));
    EXPECT_EQ(stop(), 0);
    const std::string record = written("record");
    const std::regex close("(^|\n)close ");
    EXPECT_EQ(
        std::distance(std::sregex_iterator(record.begin(), record.end(), close), std::sregex_iterator()), 10);
    EXPECT_TRUE(written("log").ends_with("consoled - stopped\n"));
}

} // namespace
