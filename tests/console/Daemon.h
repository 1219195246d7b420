// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "AInteger.h"
#include "Descriptor.h"
#include "Protocol.h"
#include "support/PamStack.h"
#include "support/ProcessMemory.h"

#include <arpa/inet.h>
#include <atomic>
#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <regex>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <utility>
#include <vector>

using namespace std::chrono_literals;
using namespace protocol;

/// What the load is divided by: only the deep checks ask for all of it.
inline const int kScale = [] {
    const char* const asked = std::getenv("GORV_TEST_LOAD");
    return asked == nullptr ? 20 : std::max(std::atoi(asked), 1);
}();
constexpr const char* kPassword = "wonderland";                                               // of alice
constexpr const char* kPassphrase = "a passphrase that is far too long for any small buffer"; // of the others
constexpr const char* kPassphraseHash =
    "salt$8e7f7bd5a1dc7663c6ccf7811c8b9123e0ac587c8999d987e0da176f5a980118";

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
    Answer logIn(std::string_view user = "alice") const { return ask(Login, {user, kPassword}); }

private:
    Descriptor m_socket{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
};

/// One of ten users who are like alice.
inline std::string userOf(int number)
{
    return "user" + std::to_string(number % 10);
}

/// A user's connection, however often it takes to get in.
inline Peer loggedIn(int port, const std::string& user = "alice")
{
    for (int i = 0; i < 5000; ++i, std::this_thread::sleep_for(2ms)) {
        Peer peer(port);
        if (peer.logIn(user).result == Done)
            return peer;
    }
    return Peer(port);
}

inline void inParallel(unsigned count, const std::function<void(unsigned)>& step)
{
    std::vector<std::jthread> threads;
    for (unsigned i = 0; i < count; ++i)
        threads.emplace_back(step, i);
}

/// A daemon of its own for each test.
class ConsoleTest : public testing::Test {
protected:
    ~ConsoleTest() override
    {
        if (m_pid > 0) {
            EXPECT_EQ(stop(), 0);
        }
    }

    /// Start it on the port that it had before, if it had one.
    void start(const std::string& options = "", int descriptors = 4096,
               const std::string& output = ">stdout 2>stderr")
    {
        for (const char* file : {"stdout", "log"})
            std::filesystem::remove(m_dir.path(file));
        launch(options, descriptors, output);
        ASSERT_TRUE(eventually([&] {
            const std::string text = written("stdout") + written("log");
            const std::size_t line = text.find("listening on port ");
            return line != std::string::npos &&
                   std::sscanf(text.c_str() + line, "listening on port %d\n", &m_port) == 1;
        })) << written("stderr");
    }
    void launch(const std::string& options, int descriptors = 4096,
                const std::string& output = ">stdout 2>stderr")
    {
        const std::string command = "cd '" + m_dir.path().string() + "' && ulimit -n " +
                                    std::to_string(descriptors) + " && exec '" CONSOLED "' " + options +
                                    " -port " + std::to_string(m_port) + " -service test -confdir \"$PWD\" " +
                                    output;
        m_pid = ::fork();
        if (m_pid == 0) {
            ::closefrom(STDERR_FILENO + 1); // whoever started the tests may have left some open
            ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            ::_exit(127);
        }
    }
    /// End the daemon as an administrator would. Returns what waitpid() tells of it.
    int stop()
    {
        ::kill(m_pid, SIGTERM);
        return wait();
    }
    /// One that doesn't end is killed.
    int wait()
    {
        int status = -1;
        const pid_t pid = std::exchange(m_pid, -1);
        if (!eventually([&] { return ::waitpid(pid, &status, WNOHANG) == pid; })) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
        }
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
    /// How often the pattern stands in what was written.
    long countIn(const char* file, const std::string& pattern) const
    {
        const std::string text = written(file);
        const std::regex expression(pattern);
        return std::distance(std::sregex_iterator(text.begin(), text.end(), expression), {});
    }
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
        const std::string command = "(printf '%s\\n' '" + input + "' | '" CONSOLE "' " + arguments +
                                    " -port " + std::to_string(m_port) + " 2>/dev/null; echo $?) >'" +
                                    m_dir.path("client") + "'";
        EXPECT_EQ(std::system(command.c_str()), 0);
        return written("client");
    }

    static std::vector<PamStack::Account> accounts()
    {
        std::vector<PamStack::Account> all = {{"alice", "auto"},
                                              {"bob", "auto", kPassphraseHash},
                                              {"carol", "auto", kPassphraseHash, "13"},
                                              {"dave", "auto", kPassphraseHash, "12"}};
        for (int i = 0; i < 10; ++i)
            all.push_back({userOf(i), "auto"});
        return all;
    }

    PamStack m_dir{GORV_DEMO_MODULE, "test", accounts()};
    pid_t m_pid = -1;
    int m_port = 0;
};
