#include "faults/Faults.h"
#include "ALog.h"
#include "ASocket.h"
#include "AUtil.h"
#include "EmbeddedPam.h"
#include "GorvSocketException.h"
#include "PAMHelper.h"
#include "SystemExec.h"
#include "support/Files.h"
#include "support/LockProbe.h"

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <dlfcn.h>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <set>
#include <sys/wait.h>

namespace {

int s_transactions = 0; // started and not ended

template <typename Function>
Function* systems(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

} // namespace

#define INTERPOSED extern "C" __attribute__((visibility("default")))

INTERPOSED int pam_start_confdir(const char* service, const char* user, const pam_conv* conversation,
                                 const char* confdir, pam_handle_t** handle) {
    static auto* const s_real = systems<decltype(pam_start_confdir)>("pam_start_confdir");
    const int status = s_real(service, user, conversation, confdir, handle);
    s_transactions += status == PAM_SUCCESS ? 1 : 0;
    return status;
}

INTERPOSED int pam_end(pam_handle_t* handle, int lastStatus) {
    static auto* const s_real = systems<decltype(pam_end)>("pam_end");
    const int status = s_real(handle, lastStatus);
    s_transactions -= status == PAM_SUCCESS ? 1 : 0;
    return status;
}

/// libpam forgets the modules that it has loaded when pam_start fails half-way. What we owe it is counted
/// above.
INTERPOSED const char* __lsan_default_suppressions() { return "leak:libpam.so\n"; }

namespace {

using Names = std::set<std::string>;

class FaultsTest : public testing::Test {
protected:
    /// A road is walked with the call of that number failing, and tells what came of it.
    using Road = std::function<std::string(Faults::Kind kind, int number)>;

    /// Walk a road until each of its calls has failed once. Returns the names of those calls.
    static Names failEachCall(const Road& road) {
        Names names;
        const std::string undisturbed = road(Faults::Kind::Failure, -1);
        for (const Faults::Kind kind : {Faults::Kind::Failure, Faults::Kind::Interruption}) {
            for (int number = 0;; ++number) {
                const int before = openDescriptors();
                const std::string outcome = road(kind, number);
                const Names failed = Faults::failedCalls();
                if (failed.empty()) break;
                names.insert(failed.begin(), failed.end());
                SCOPED_TRACE("call " + std::to_string(number) + ", " + testing::PrintToString(failed) + ": " + outcome);
                EXPECT_EQ(openDescriptors(), before);
                EXPECT_TRUE(LockProbe(*PAMHelper::getMonitor()).gotIt());
                EXPECT_TRUE(PAMHelper::instanceMap.empty());
                EXPECT_EQ(s_transactions, 0);
                EXPECT_TRUE(outcome == undisturbed || kind == Faults::Kind::Failure);
            }
        }
        return names;
    }
    static void expectAll(const Names& names, const Names& wanted) {
        EXPECT_TRUE(std::includes(names.begin(), names.end(), wanted.begin(), wanted.end()))
            << testing::PrintToString(names);
    }

    TempDir m_dir;
};

// ---- a login

// "wonderland", as the module stores it.
constexpr const char* kHash = "salt$8808161c460734fc7bb91a1d1a26e7a2eb75ef0b18ce8538c05218d503e23c36";

class LoginFaultsTest : public FaultsTest {
protected:
    LoginFaultsTest() {
        std::ofstream service(m_dir.path(m_service));
        for (const char* type : {"auth", "account", "session"})
            service << type << " required " GORV_DEMO_MODULE " accounts=" << m_dir.path("accounts") << '\n';
        std::ofstream(m_dir.path("accounts")) << m_user << ':' << kHash << ":0:7\n";
        useServiceFilesIn(m_confdir.c_str());
    }
    ~LoginFaultsTest() override {
        useServiceFilesIn(nullptr);
        ::dlclose(m_module);
    }

    std::string logIn(Faults::Kind kind, int number, const std::string& password) {
        std::string secret = password;
        bool skip = false;
        int status = -1;
        int again = -1;
        bool opened = false;
        bool registered = false;
        PAMHelper* helper = nullptr;
        {
            const Faults faults(kind, number);
            try {
                helper = new PAMHelper("::ffff:10.20.30.40", "2001:db8:1234:5678:9abc:def0:1234:5678");
                status = helper->authenticate(m_service, m_user, secret, m_name, m_value, skip);
                opened = helper->startSession();
                helper->setSessionId(AUtil::generateRandomKey());
                registered = PAMHelper::instanceForSessionId(helper->getSessionId()) == helper;
                again = helper->authenticate(m_stranger, secret, skip);
                helper->stopSession();
                EXPECT_FALSE(helper->isValid());
            } catch (const std::bad_alloc&) {}
            if (helper != nullptr) {
                const std::string& kept = helper->m_password;
                EXPECT_TRUE(std::all_of(kept.begin(), kept.end(), [](char c) { return c == '\0'; }));
                helper->dispose();
            }
        }
        EXPECT_TRUE(!opened || status == PAM_SUCCESS);
        EXPECT_NE(again, PAM_SUCCESS);
        EXPECT_TRUE(status != PAM_SUCCESS || secret == "wonderland");
        return std::to_string(status) + (opened ? " opened" : "") + (registered ? " registered" : "");
    }

    void* m_module = ::dlopen(GORV_DEMO_MODULE, RTLD_NOW); // loading it anew for each walk would take long
    // None of them fits into a string itself.
    std::string m_service = "a-service-with-a-long-name";
    std::string m_user = "a-user-with-a-long-name";
    std::string m_stranger = "another-user-with-a-long-name";
    std::string m_name = "A_VARIABLE_WITH_A_LONG_NAME";
    std::string m_value = "a value that is longer than a string";
    std::string m_confdir = m_dir.path().string();
};

TEST_F(LoginFaultsTest, NoFaultLeaksALoginOrLetsAWrongPasswordIn) {
    EXPECT_EQ(logIn(Faults::Kind::Failure, -1, "wonderland"), "0 opened registered");
    for (const char* password : {"wonderland", "a password that is wrong and long"}) {
        const Names names = failEachCall([&](Faults::Kind kind, int number) { return logIn(kind, number, password); });
        expectAll(names, {"calloc", "fopen", "malloc", "new", "open", "read", "strdup"});
    }
}

// ---- a connection

class ConnectionFaultsTest : public FaultsTest {
protected:
    ConnectionFaultsTest() {
        m_address.sin_family = AF_INET;
        m_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof m_address;
        ::bind(m_listener, reinterpret_cast<sockaddr*>(&m_address), size);
        ::listen(m_listener, 4);
        ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&m_address), &size);
    }
    ~ConnectionFaultsTest() override {
        ::close(m_listener);
        std::fclose(m_logFile);
    }

    std::string talk(Faults::Kind kind, int number) {
        ALog log("talk", m_logFile);
        CapturedStream output(stdout);
        CapturedStream errors(stderr);
        std::string outcome;
        int peer = -1;
        {
            ASocket socket;
            const Faults faults(kind, number);
            try {
                socket.createIPSocket("127.0.0.1", ntohs(m_address.sin_port));
                Faults::undisturbed([&] {
                    peer = ::accept(m_listener, nullptr, nullptr);
                    EXPECT_EQ(::send(peer, "\0\0\1\0\0\7twelve bytes", 18, 0), 18);
                });
                outcome = converse(socket, log);
            } catch (const GorvSocketException&) {
                outcome = "refused";
                EXPECT_FALSE(socket.isOpen());
            } catch (const std::bad_alloc&) { outcome = "no memory"; }
        }
        return outcome + " " + receivedBy(peer);
    }

private:
    static std::string converse(ASocket& socket, ALog& log) {
        int number = -1;
        short shorter = -1;
        unsigned char bytes[12] = {};
        socket.setLog(log);
        const int first = socket.readInt(number, 5);
        const int second = socket.readShort(shorter, 5);
        const int third = socket.readFully(bytes, 0, sizeof bytes, 5);
        EXPECT_EQ(number, first == 4 ? 256 : -1);
        EXPECT_EQ(shorter, second == 2 ? 7 : -1);
        socket.writeInt(1);
        socket << "a text";
        ASocket copy(socket);
        EXPECT_TRUE(copy.isOpen() || copy.getSocketState() == ASocket::IO_ERROR);
        copy.writeByte('.');
        return std::to_string(first) + std::to_string(second) + std::to_string(third);
    }
    /// All that arrived at the peer, which has to be what was written, up to some point.
    static std::string receivedBy(int peer) {
        const std::string whole("\0\0\0\1a text.", 11);
        char bytes[64];
        ssize_t count = 0;
        if (peer >= 0) {
            count = ::recv(peer, bytes, sizeof bytes, MSG_WAITALL);
            ::close(peer);
        }
        const std::string received(bytes, count < 0 ? 0 : static_cast<std::size_t>(count));
        EXPECT_EQ(received, whole.substr(0, received.size()));
        return std::to_string(received.size());
    }

    FILE* m_logFile = std::fopen(m_dir.path("log").c_str(), "we");
    int m_listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in m_address{};
};

TEST_F(ConnectionFaultsTest, NoFaultLosesADescriptorOrMixesUpBytes) {
    EXPECT_EQ(talk(Faults::Kind::Failure, -1), "4212 11");
    expectAll(failEachCall([this](Faults::Kind kind, int number) { return talk(kind, number); }),
              {"connect", "fcntl", "new", "poll", "recv", "setsockopt", "socket", "write"});
}

// ---- a program

std::string readAll(int descriptor) {
    std::string text;
    char bytes[256];
    for (ssize_t count = 0; (count = ::read(descriptor, bytes, sizeof bytes)) > 0;)
        text.append(bytes, static_cast<std::size_t>(count));
    return text;
}

std::string runProgram(Faults::Kind kind, int number) {
    CapturedStream output(stdout);
    CapturedStream errors(stderr);
    SystemExec runner;
    std::string command = "/bin/../bin/../bin/../bin/../bin/echo";
    char* args[] = {command.data(), command.data(), nullptr};
    try {
        const Faults faults(kind, number);
        runner.setCommand(command);
        runner.setArgList(args);
        runner.execute();
    } catch (const std::bad_alloc&) {}
    const bool started = runner.getStdOut() >= 0;
    EXPECT_EQ(runner.getStdIn() >= 0, started);
    EXPECT_EQ(runner.getStdErr() >= 0, started);
    const std::string text = started ? readAll(runner.getStdOut()) : "none";
    if (started) {
        siginfo_t child{};
        ::waitid(P_ALL, 0, &child, WEXITED | WNOWAIT);
        signalHandler(SIGCHLD);
    }
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    se = nullptr;
    return text;
}

TEST_F(FaultsTest, NoFaultOfAProgramRunLeavesAPipeOrAChild) {
    sigset_t childEnded; // the handler is called by hand
    sigset_t before;
    sigemptyset(&childEnded);
    sigaddset(&childEnded, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &childEnded, &before);
    EXPECT_EQ(runProgram(Faults::Kind::Failure, -1), "/bin/../bin/../bin/../bin/../bin/echo\n");
    expectAll(failEachCall(runProgram), {"dup2", "execvp", "fork", "new", "pipe2"});
    std::signal(SIGCHLD, SIG_DFL);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

} // namespace
