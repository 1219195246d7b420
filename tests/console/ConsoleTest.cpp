#include "AInteger.h"
#include "Protocol.h"
#include "support/Files.h"
#include "support/ProcessMemory.h"

#include <arpa/inet.h>
#include <array>
#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <poll.h>
#include <random>
#include <regex>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
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
constexpr const char* kAccounts = "alice:salt$8808161c460734fc7bb91a1d1a26e7a2eb75ef0b18ce8538c05218d503e23c36:0:auto\n"
                                  "bob:salt$8e7f7bd5a1dc7663c6ccf7811c8b9123e0ac587c8999d987e0da176f5a980118:0:auto\n";

struct Answer {
    int result = -1; // -1: the daemon closed the connection
    std::string text;
};

/// A raw connection to the daemon.
class Peer {
public:
    explicit Peer(int port) : m_descriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        const timeval limit = {60, 0};
        ::setsockopt(m_descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        m_connected = ::connect(m_descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    ~Peer() {
        const linger abrupt = {1, 0}; // a vanished client, and no port kept waiting
        ::setsockopt(m_descriptor, SOL_SOCKET, SO_LINGER, &abrupt, sizeof abrupt);
        ::close(m_descriptor);
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    bool isConnected() const { return m_connected; }
    void send(std::string_view bytes) const {
        [[maybe_unused]] const ssize_t sent = ::send(m_descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    Answer receive() const {
        std::array<unsigned char, kHeaderSize> header{};
        if (::recv(m_descriptor, header.data(), header.size(), MSG_WAITALL) != kHeaderSize) return {};
        Answer answer;
        answer.result = AInteger::decodeShort(header.data(), 0);
        answer.text.resize(static_cast<std::size_t>(AInteger::decodeInt(header.data(), 2)));
        const ssize_t count = ::recv(m_descriptor, answer.text.data(), answer.text.size(), MSG_WAITALL);
        return count == static_cast<ssize_t>(answer.text.size()) ? answer : Answer{};
    }
    /// Send no more, and take whatever comes until the daemon has closed.
    void finish() const {
        ::shutdown(m_descriptor, SHUT_WR);
        for (char bytes[256]; ::recv(m_descriptor, bytes, sizeof bytes, 0) > 0;) {}
    }
    Answer ask(short operation, const std::vector<std::string_view>& fields = {}) const {
        send(frame(operation, joinFields(fields)));
        return receive();
    }
    Answer logIn() const { return ask(Login, {"alice", kPassword}); }

private:
    int m_descriptor;
    bool m_connected;
};

/// A daemon of its own for each test, on a PAM stack in a scratch folder.
class ConsoleTest : public testing::Test {
protected:
    ConsoleTest() {
        std::ofstream(m_dir.path("accounts")) << kAccounts;
        std::ofstream service(m_dir.path("test"));
        for (const char* type : {"auth", "account", "session"})
            service << type << " required " GORV_DEMO_MODULE " accounts=" << m_dir.path("accounts")
                    << " record=" << m_dir.path("record") << '\n';
    }
    ~ConsoleTest() override {
        if (m_pid > 0) { EXPECT_EQ(stop(), 0); }
    }

    void start(std::vector<std::string> options = {}, rlim_t descriptors = 4096) {
        std::vector<std::string> words = {
            CONSOLED, "-port", "0", "-service", "test", "-confdir", m_dir.path().string()};
        words.insert(words.end(), options.begin(), options.end());
        std::array<int, 2> ends{};
        ASSERT_EQ(::pipe(ends.data()), 0);
        m_pid = ::fork();
        if (m_pid == 0) {
            const rlimit limit = {descriptors, descriptors};
            ::setrlimit(RLIMIT_NOFILE, &limit);
            ::dup2(ends[1], STDOUT_FILENO);
            std::freopen(m_dir.path("stderr").c_str(), "w", stderr);
            for (int other = 3; other < 64; ++other) ::close(other);
            std::vector<char*> arguments;
            for (std::string& word : words) arguments.push_back(word.data());
            arguments.push_back(nullptr);
            ::execv(CONSOLED, arguments.data());
            ::_exit(127);
        }
        ::close(ends[1]);
        std::string greeting;
        for (char c = 0; c != '\n' && ::read(ends[0], &c, 1) == 1;) greeting.push_back(c);
        m_drain = std::thread([end = ends[0]] { // what the library prints must not fill the pipe
            for (char bytes[4096]; ::read(end, bytes, sizeof bytes) > 0;) {}
            ::close(end);
        });
        ASSERT_EQ(std::sscanf(greeting.c_str(), "consoled: listening on port %d", &m_port), 1) << greeting;
    }
    /// End the daemon as an administrator would. Returns its exit status.
    int stop() {
        ::kill(m_pid, SIGTERM);
        int status = -1;
        ::waitpid(m_pid, &status, 0);
        m_pid = -1;
        m_drain.join();
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    }
    std::string process(const char* name) const { return "/proc/" + std::to_string(m_pid) + "/" + name; }
    long descriptors() const {
        const auto entries = std::filesystem::directory_iterator(process("fd"));
        return std::distance(begin(entries), end(entries));
    }
    long residentKiB() const {
        const std::string status = readFile(process("status"));
        return std::stol(status.substr(status.find("VmRSS:") + 6));
    }
    long cpuTicks() const {
        std::istringstream stat(readFile(process("stat")));
        std::string word;
        for (int i = 0; i < 13; ++i) stat >> word;
        long user = 0, system = 0;
        stat >> user >> system;
        return user + system;
    }
    /// How many sessions the daemon has registered, that of the asking peer included.
    static int sessions(const Peer& peer) { return std::stoi(peer.ask(Call, {"console_sessions", ""}).text); }
    template <typename Condition>
    static bool eventually(Condition condition) {
        for (int i = 0; i < 1000; ++i) {
            if (condition()) return true;
            std::this_thread::sleep_for(20ms);
        }
        return false;
    }
    int runClient(const std::string& arguments, std::string& output, const char* input = kPassword) const {
        const std::string command = std::string("printf '%s\\n' '") + input + "' | " CONSOLE " -port " +
                                    std::to_string(m_port) + " " + arguments + " 2>/dev/null";
        FILE* pipe = ::popen(command.c_str(), "r");
        char line[512];
        while (std::fgets(line, sizeof line, pipe) != nullptr) output += line;
        return WEXITSTATUS(::pclose(pipe));
    }

    TempDir m_dir;
    pid_t m_pid = -1;
    int m_port = 0;
    std::thread m_drain;
};

TEST_F(ConsoleTest, ClientWalksThroughASession) {
    start({"-log", m_dir.path("log"), "-trace", m_dir.path("trace"), "-level", "3"});
    std::string output;
    const char* const script = "-user alice -c 'set hostname box-17; set hostname box-17; get hostname; "
                               "event gui_event_config_changed now; "
                               "call console_sessions; run system; logout; get hostname'";
    EXPECT_EQ(runClient(script, output), 0);
    EXPECT_TRUE(std::regex_match(output, std::regex("logged in\nset\nset\nbox-17\nraised\n1\nLinux .*\nlogged out\n")))
        << output;
    for (const char* bad : {"-user alice -c 'get missing'", "-user alice -c 'run rm'", "-c 'who'", "-c 'dance'"})
        EXPECT_EQ(runClient(bad, output), 1) << bad;
    output.clear();
    const std::string dialogue =
        std::string(kPassword) + "\nget hostname\nset k " + std::string(5000, 'x') + " run id\nget k";
    EXPECT_EQ(runClient("-user alice", output, dialogue.c_str()), 1); // the long line is refused as a whole
    EXPECT_EQ(output, "logged in\nbox-17\n");
    EXPECT_EQ(runClient("-user alice -c who", output, "wrong"), 1);
    const int port = std::exchange(m_port, 0);
    EXPECT_EQ(runClient("", output), 2);
    m_port = 1;
    EXPECT_EQ(runClient("-c who", output), 3);
    m_port = port;
    EXPECT_TRUE(std::regex_search(readFile(m_dir.path("log")),
                                  std::regex("consoled - 127\\.0\\.0\\.1:\\d+: alice logged in, session 1\n")));
    EXPECT_NE(readFile(m_dir.path("trace")).find(": operation 7\n"), std::string::npos);
    EXPECT_NE(readFile(m_dir.path("record")).find("close user=alice rhost=127.0.0.1 INTERFACE_IP=127.0.0.1"),
              std::string::npos);
}

TEST_F(ConsoleTest, WrongPasswordAndUnknownUserAreAnsweredAlikeAndThreeTriesAreAll) {
    start();
    const Peer wrong(m_port);
    const Peer unknown(m_port);
    for (int i = 0; i < 3; ++i) {
        const Answer one = wrong.ask(Login, {"alice", "looking-glass"});
        const Answer other = unknown.ask(Login, {"nobody", kPassword});
        EXPECT_EQ(one.result, Refused);
        EXPECT_EQ(one.result, other.result);
        EXPECT_EQ(one.text, other.text);
    }
    EXPECT_EQ(wrong.receive().result, -1);
}

TEST_F(ConsoleTest, PasswordIsNowhereAfterTheLogin) {
    if (!ProcessMemory::canBeSearched()) GTEST_SKIP() << "a sanitizer's own memory is searched in vain";
    start({"-log", m_dir.path("log"), "-trace", m_dir.path("trace"), "-level", "9"});
    const ProcessMemory::Secret secret("a passphrase that is far too long for any small buffer");
    const ProcessMemory::Secret property("what is no secret at all and is kept on purpose");
    const std::string pid = std::to_string(m_pid);
    const std::string password = secret.text();
    const Peer refused(m_port);
    EXPECT_EQ(refused.ask(Login, {"alice", password}).result, Refused);
    const Peer peer(m_port);
    EXPECT_EQ(peer.ask(Login, {"bob", password}).result, Done);
    EXPECT_FALSE(ProcessMemory::holds(secret, pid));
    EXPECT_EQ(peer.ask(Set, {"motto", property.text()}).result, Done);
    EXPECT_TRUE(ProcessMemory::holds(property, pid)); // the search works
    for (const char* file : {"log", "trace", "record", "stderr"})
        EXPECT_EQ(readFile(m_dir.path(file)).find(password), std::string::npos) << file;
}

TEST_F(ConsoleTest, TwoHundredClientsAreAllServedAndLeaveNothing) {
    constexpr int kClients = 200;
    constexpr int kLogins = 25; // each
    start();
    const Peer watcher(m_port);
    ASSERT_EQ(watcher.logIn().result, Done);
    std::atomic<int> served = 0;
    const auto crowd = [&](int logins) {
        std::vector<std::thread> clients;
        for (int i = 0; i < kClients; ++i) {
            clients.emplace_back([&, logins] {
                for (int login = 0; login < logins; ++login) {
                    const Peer peer(m_port);
                    if (peer.logIn().result == Done && peer.ask(Who).result == Done &&
                        (login % 2 == 0 || peer.ask(Logout).result == Done)) // every other one just vanishes
                        ++served;
                }
            });
        }
        for (auto& client : clients) client.join();
        EXPECT_TRUE(eventually([&] { return sessions(watcher) == 1; }));
    };
    crowd(1); // what the daemon allocates once
    EXPECT_TRUE(eventually(
        [&] { return readFile(process("status")).find("Threads:\t2\n") != std::string::npos || kScale > 1; }));
    const long descriptorsBefore = descriptors();
    const long residentBefore = residentKiB();
    crowd(std::max(kLogins / kScale, 1));
    EXPECT_EQ(served, kClients * (1 + std::max(kLogins / kScale, 1)));
    EXPECT_TRUE(eventually([&] { return descriptors() <= descriptorsBefore; })) << descriptors();
    if (kScale == 1) { EXPECT_LT(residentKiB(), residentBefore + 4096); }
}

TEST_F(ConsoleTest, BrokenAndHostileFramesHarmNobody) {
    start();
    const Peer steady(m_port);
    ASSERT_EQ(steady.logIn().result, Done);
    const std::vector<std::pair<short, std::vector<std::string_view>>> requests = {
        {Login, {"alice", kPassword}}, {Who, {}},           {Get, {"hostname"}},
        {Set, {"hostname", "x"}},      {Event, {"e", "d"}}, {Call, {"console_sessions", ""}},
        {protocol::Run, {"date"}},     {Logout, {}}};
    for (const auto& [operation, fields] : requests) {
        const std::string whole = frame(operation, joinFields(fields));
        for (std::size_t cut = 1; cut < whole.size(); ++cut)
            Peer(m_port).send(std::string_view(whole).substr(0, cut)); // and vanishes
        const Peer peer(m_port);
        peer.logIn();
        peer.send(std::string_view(whole).substr(0, whole.size() - 1)); // with a login open
    }
    const std::string field = joinFields({"x"});
    const struct {
        std::string bytes;
        int result;
        bool goesOn;
    } frames[] = {
        {frame(99, field), UnknownOperation, true},
        {frame(-1, ""), UnknownOperation, true},
        {frame(Get, ""), BadRequest, true},
        {frame(Get, field + "tail"), BadRequest, true},
        {frame(Get, std::string("\xff\xff\xff\xff", 4)), BadRequest, true},
        {frame(Get, joinFields({"two", "fields"})), BadRequest, true},
        {frame(Get, joinFields({"new\nline"})), BadRequest, true},
        {frame(Get, joinFields({std::string(256, 'n')})), BadRequest, true},
        {frame(Login, joinFields({std::string_view("a\0b", 3), "c"})), BadRequest, true},
        {frame(Who, ""), NotLoggedIn, true},
        {std::string("\0\3\x7f\xff\xff\xff", 6), TooLarge, false},
        {std::string("\0\3\xff\xff\xff\xff", 6), TooLarge, false},
        {std::string("\0\3\0\0\x10\1", 6), TooLarge, false},
    };
    for (const auto& test : frames) {
        const Peer peer(m_port);
        peer.send(test.bytes);
        EXPECT_EQ(peer.receive().result, test.result);
        EXPECT_EQ(peer.ask(Who).result, test.goesOn ? int{NotLoggedIn} : -1);
    }
    std::vector<std::thread> attackers;
    for (unsigned seed = 0; seed < 4; ++seed) {
        attackers.emplace_back([&, seed] {
            std::mt19937 random(seed);
            for (int i = 0; i < 25'000 / kScale; ++i) {
                std::string bytes(1 + random() % 64, '\0');
                for (char& byte : bytes) byte = static_cast<char>(random());
                if (i % 2 == 0)
                    bytes.replace(0, std::min<std::size_t>(bytes.size(), 5),
                                  std::string("\0\1\0\0\0", 5)); // further in
                const Peer peer(m_port);
                peer.send(bytes);
                peer.finish();
            }
        });
    }
    for (auto& attacker : attackers) attacker.join();
    EXPECT_EQ(steady.ask(Who).result, Done);
    EXPECT_TRUE(eventually([&] { return sessions(steady) == 1; }));
    EXPECT_EQ(Peer(m_port).logIn().result, Done);
}

TEST_F(ConsoleTest, WithoutDescriptorsClientsAreRefusedAndNothingSpins) {
    start({}, 24);
    std::vector<std::unique_ptr<Peer>> peers;
    int refused = 0;
    for (int i = 0; i < 40; ++i) {
        peers.push_back(std::make_unique<Peer>(m_port));
        const Answer answer = peers.back()->ask(Who);
        EXPECT_TRUE(answer.result == NotLoggedIn || answer.result == Busy || answer.result == -1) << answer.result;
        refused += answer.result != NotLoggedIn ? 1 : 0;
    }
    EXPECT_GT(refused, 10);
    const long before = cpuTicks();
    std::this_thread::sleep_for(1s);
    EXPECT_LT(cpuTicks() - before, sysconf(_SC_CLK_TCK) / 2);
    peers.clear();
    EXPECT_TRUE(eventually([&] { return Peer(m_port).logIn().result == Done; }));
}

TEST_F(ConsoleTest, FullDiskStopsNoService) {
    start({"-log", "/dev/full", "-trace", "/dev/full"});
    for (int i = 0; i < 50; ++i) {
        const Peer peer(m_port);
        EXPECT_EQ(peer.logIn().result, Done);
        EXPECT_EQ(peer.ask(Get, {"hostname"}).result, NotFound);
    }
}

TEST_F(ConsoleTest, ClientThatOwesARequestIsHungUp) {
    start({"-idle", "1"});
    const Peer silent(m_port);
    ASSERT_EQ(silent.logIn().result, Done);
    const Peer stalled(m_port);
    stalled.send(std::string_view("\0\1\0", 3)); // half a header, which a blocked receive waits for
    const Peer trickling(m_port);
    std::thread trickle([&] {
        for (int i = 0; i < 12; ++i) { // always in time for the next byte, never for the request
            trickling.send(std::string_view("\0\1\0\0\1\0\0\0\0\0\0\0", 12).substr(static_cast<std::size_t>(i), 1));
            std::this_thread::sleep_for(400ms);
        }
    });
    EXPECT_EQ(silent.receive().result, -1);
    EXPECT_EQ(stalled.receive().result, -1);
    EXPECT_EQ(trickling.receive().result, -1);
    trickle.join();
    EXPECT_TRUE(eventually([&] { return readFile(m_dir.path("record")).find("close ") != std::string::npos; }));
}

TEST_F(ConsoleTest, OneProgramRunsAtATimeAndTheNextAfterIt) {
    start();
    const Peer first(m_port);
    const Peer second(m_port);
    ASSERT_EQ(first.logIn().result + second.logIn().result, Done);
    const long before = descriptors();
    first.send(frame(protocol::Run, joinFields({"id"})));
    second.send(frame(protocol::Run, joinFields({"id"})));
    const std::array<Answer, 2> answers = {first.receive(), second.receive()};
    const Answer& done = answers[answers[0].result == Done ? 0 : 1];
    EXPECT_EQ(answers[0].result + answers[1].result, Done + Busy);
    EXPECT_TRUE(done.text.starts_with("uid=")) << done.text;
    EXPECT_EQ(first.ask(protocol::Run, {"disk"}).result, Done);
    EXPECT_EQ(descriptors(), before);
}

TEST_F(ConsoleTest, TerminationClosesEverySession) {
    start({"-log", m_dir.path("log")});
    std::vector<std::unique_ptr<Peer>> peers;
    for (int i = 0; i < 10; ++i) {
        peers.push_back(std::make_unique<Peer>(m_port));
        ASSERT_EQ(peers.back()->logIn().result, Done);
        peers.back()->send(std::string_view("\0\1\0", static_cast<std::size_t>(i) % 4));
    }
    peers.front()->send(frame(protocol::Run, joinFields({"id"})));
    EXPECT_EQ(stop(), 0);
    const std::string record = readFile(m_dir.path("record"));
    const std::regex close("(^|\n)close ");
    EXPECT_EQ(std::distance(std::sregex_iterator(record.begin(), record.end(), close), std::sregex_iterator()), 10);
    EXPECT_TRUE(readFile(m_dir.path("log")).ends_with("consoled - stopped\n"));
}

} // namespace
