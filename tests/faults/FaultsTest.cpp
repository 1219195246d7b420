#include "faults/Faults.h"
#include "ALog.h"
#include "ASocket.h"
#include "AUtil.h"
#include "EmbeddedPam.h"
#include "GorvSocketException.h"
#include "PAMHelper.h"
#include "SystemExec.h"
#include "support/Files.h"
#include "support/Interposed.h"
#include "support/LockProbe.h"
#include "support/PamStack.h"

#include <arpa/inet.h>
#include <csignal>
#include <dlfcn.h>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <set>
#include <sys/wait.h>

/// libpam forgets the modules that it has loaded when pam_start fails half-way. What we owe it is counted.
INTERPOSED const char* __lsan_default_suppressions()
{
    return "leak:libpam.so\n";
}

namespace {

/// A road is walked with the call of that number failing, and tells what came of it.
using Road = std::function<std::string(Faults::Kind kind, int number)>;
/// What comes of a road on which the call of that name fails, as a regular expression.
using Outcomes = std::map<std::string, std::string>;

/// Walk a road until each of its calls has failed once, those of @p outcomes among them. A call that isn't
/// named there, and one that is only interrupted, changes nothing.
void failEachCall(const std::string& undisturbed, const Outcomes& outcomes, const Road& road)
{
    EXPECT_EQ(road(Faults::Kind::Failure, -1), undisturbed);
    std::set<std::string> failed;
    for (const Faults::Kind kind : {Faults::Kind::Failure, Faults::Kind::Interruption}) {
        for (int number = 0;; ++number) {
            const int before = openDescriptors();
            const std::string outcome = road(kind, number), name = Faults::failedCall();
            if (name.empty())
                break;
            failed.insert(name);
            SCOPED_TRACE("call " + std::to_string(number) + ", " + name + ": " + outcome);
            EXPECT_EQ(openDescriptors(), before);
            EXPECT_TRUE(LockProbe(*PAMHelper::getMonitor()).gotIt());
            EXPECT_TRUE(PAMHelper::instanceMap.empty());
            EXPECT_EQ(Faults::s_transactions, 0);
            EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1); // no child is left
            const auto expected = kind == Faults::Kind::Failure ? outcomes.find(name) : outcomes.end();
            if (expected == outcomes.end())
                EXPECT_EQ(outcome, undisturbed);
            else
                EXPECT_TRUE(std::regex_match(outcome, std::regex(expected->second)));
        }
    }
    failed.insert("malloc"); // which new doesn't call under a sanitizer
    for (const auto& [name, expected] : outcomes)
        EXPECT_TRUE(failed.contains(name)) << name;
}

std::string logIn(Faults::Kind kind, int number, std::string password)
{
    // None of them fits into a string itself.
    std::string service = "a-service-with-a-long-name", user = "a-user-with-a-long-name";
    std::string stranger = "another-user-with-a-long-name";
    std::string name = "A_VARIABLE_WITH_A_LONG_NAME", value = "a value that is longer than a string";
    const bool isRight = password == "wonderland";
    bool skip = false;
    std::string outcome = "-1";
    outcome.reserve(100); // only what is watched shall allocate
    PAMHelper* helper = nullptr;
    try {
        const Faults faults(kind, number);
        helper = new PAMHelper("::ffff:10.20.30.40", "2001:db8:1234:5678:9abc:def0:1234:5678");
        outcome = std::to_string(helper->authenticate(service, user, password, name, value, skip));
        if (helper->startSession())
            outcome += " opened";
        helper->setSessionId(AUtil::generateRandomKey());
        if (PAMHelper::instanceForSessionId(helper->getSessionId()) == helper)
            outcome += " registered";
        EXPECT_NE(helper->authenticate(stranger, password, skip), PAM_SUCCESS);
        helper->stopSession();
    } catch (const std::bad_alloc&) {
    }
    if (helper != nullptr) {
        EXPECT_EQ(helper->m_password, std::string(helper->m_password.size(), '\0'));
        helper->dispose();
    }
    EXPECT_TRUE(isRight || outcome.front() != '0');
    return outcome;
}

TEST(FaultsTest, NoFaultLeaksALoginOrLetsAWrongPasswordIn)
{
    const PamStack stack(GORV_DEMO_MODULE, "a-service-with-a-long-name", {{"a-user-with-a-long-name", "7"}});
    useServiceFilesIn(stack.path().c_str());
    ::dlopen(GORV_DEMO_MODULE, RTLD_NOW); // loading it anew for each walk would take long
    const std::string any = ".*";         // PAM has much to fail with, the audit included
    const std::string none = "(0 opened|7) registered";
    const Outcomes outcomes = {{"calloc", any}, {"malloc", any}, {"new", any},   {"open", none},
                               {"read", none},  {"fcntl", any},  {"socket", any}};
    const std::pair<const char*, const char*> logins[] = {
        {"wonderland", "0 opened registered"}, {"a password that is wrong and long", "7 registered"}};
    for (const auto& [password, outcome] : logins) {
        failEachCall(outcome, outcomes, [secret = password](Faults::Kind kind, int number) {
            return logIn(kind, number, secret);
        });
    }
    useServiceFilesIn(nullptr);
}

TEST(FaultsTest, KeysDifferWithAndWithoutTheDevice)
{
    for (const int failing : {-1, 0, 1, 4}) { // no call, its opening, its first and last reading
        std::set<std::string> groups;
        for (int i = 0; i < 50; ++i) {
            const Faults faults(Faults::Kind::Failure, failing);
            const std::string key = AUtil::generateRandomKey();
            EXPECT_EQ(key.size(), 32U);
            EXPECT_EQ(key.find_first_not_of("0123456789abcdef"), key.npos) << key;
            for (const int position : {0, 8, 16, 24})
                groups.insert(key.substr(position, 8));
        }
        EXPECT_EQ(groups.size(), 200U) << failing;
        EXPECT_EQ(*groups.rbegin() > "8", failing < 0); // rand() leaves the first bit of a group clear
    }
}

TEST(FaultsTest, NoFaultOfAConnectionLosesADescriptorOrMixesUpBytes)
{
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    socklen_t size = sizeof address;
    ::listen(listener, 4); // at any free port
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
    const Road talk = [&](Faults::Kind kind, int number) {
        CapturedStream output(stdout), errors(stderr);
        ALog log("talk", stdout);
        log.setShowTimestamp(false); // once a second a stamp asks for more than other lines
        std::string outcome;
        outcome.reserve(100); // only what is watched shall allocate
        int peer = -1;
        {
            ASocket socket;
            try {
                const Faults faults(kind, number);
                socket.createIPSocket("127.0.0.1", ntohs(address.sin_port));
                peer = ::accept(listener, nullptr, nullptr);
                ::send(peer, "\0\0\1\0fourteen bytes", 18, 0);
                int value = 0;
                unsigned char data[14] = {};
                socket.setLog(log);
                outcome = std::to_string(socket.readInt(value, 5)) + " read, ";
                outcome += std::to_string(socket.readFully(data, 0, sizeof data, 5)) + " read";
                socket.writeInt(1);
                socket << "a text";
                ASocket copy(socket);
                copy.writeByte('.');
                outcome += ", copy " + std::to_string(copy.getSocketState());
            } catch (const GorvSocketException& failure) {
                outcome = failure.getMessage();
                EXPECT_FALSE(socket.isOpen());
            } catch (const std::bad_alloc&) {
                outcome = "no memory";
            }
            outcome += ", state " + std::to_string(socket.getSocketState());
            if (socket.getSocketState() != ASocket::CONNECTED)
                outcome += ", " + errors.text();
        }
        std::string received(64, '\0');
        const ssize_t count = ::recv(peer, received.data(), received.size(), MSG_WAITALL);
        received.resize(static_cast<std::size_t>(std::max(count, ssize_t{0})));
        ::close(peer);
        EXPECT_EQ(received, std::string("\0\0\0\1a text.", 11).substr(0, received.size()));
        return outcome + ", " + std::to_string(received.size()) + " arrived";
    };
    const std::string port = std::to_string(ntohs(address.sin_port)),
                      target = " ip=\"127.0.0.1\" port=" + port + "\n";
    const std::string read = "4 read, 14 read, copy ", undisturbed = read + "1, state 1, 11 arrived";
    const std::string noMemory = "no memory, state 1, 0 arrived|no memory, state 0, , 0 arrived";
    const Outcomes outcomes = {
        {"socket",
         "Failed to open socket" + target + ", state 4, Failed to open socket\n: Too many.*\n, 0 arrived"},
        {"setsockopt", undisturbed},
        {"malloc",
         "host info.*\n, state 2, host info not found: Cannot allocate memory\n, 0 arrived|" + noMemory},
        {"new", noMemory},
        {"connect",
         "Unable to connect socket" + target + ", state 2, Unable to.*: Connection refused\n, 0 arrived"},
        {"poll", undisturbed},
        {"recv",
         "(-1|4) read, -1 read, copy 5, state 5, Socket recv failed: Connection reset.*\n, 0 arrived"},
        {"write", read + "(5, state 5, Socket write failed: Broken pipe\n, [04]|5, state 1, 10) arrived"},
        // Without a descriptor of the copy.
        {"fcntl", read + "5, state 1, 10 arrived"},
    };
    failEachCall(undisturbed, outcomes, talk);
    ::close(listener);
}

/// With a pipe at the number of the standard input. The calls of the handler, which the child goes on beside,
/// have numbers of their own.
std::string runProgram(Faults::Kind kind, int number, int numberInHandler)
{
    CapturedStream output(stdout), errors(stderr);
    const int input = ::dup(STDIN_FILENO);
    ::close(STDIN_FILENO);
    SystemExec runner;
    std::string command = "/bin/../bin/../bin/../bin/../bin/echo";
    try {
        const Faults faults(kind, number);
        runner.setCommand(command);
        runner.execute({command, command});
    } catch (const std::bad_alloc&) {
    }
    std::string text = "none";
    if (runner.getStdOut() >= 0) {
        text = readFile("/dev/fd/" + std::to_string(runner.getStdOut()));
        text += readFile("/dev/fd/" + std::to_string(runner.getStdErr()));
        siginfo_t child{};
        ::waitid(P_ALL, 0, &child, WEXITED | WNOWAIT);
        const Faults faults(kind, numberInHandler);
        signalHandler(SIGCHLD);
        if (kind == Faults::Kind::Failure && Faults::failedCall() == "wait")
            ::waitid(P_ALL, 0, &child, WEXITED);
    }
    ::dup2(input, STDIN_FILENO);
    ::close(input);
    se = nullptr;
    return text + errors.text();
}

TEST(FaultsTest, NoFaultOfAProgramRunLeavesAPipeOrAChild)
{
    sigset_t childEnded; // the handler is called by hand
    sigemptyset(&childEnded);
    sigaddset(&childEnded, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &childEnded, nullptr);
    const std::string echo = "/bin/../bin/../bin/../bin/../bin/echo", begun = " SystemExec: " + echo;
    const std::string failure = "SystemExec child: " + echo + ": execl Error!:";
    failEachCall(echo + "\n",
                 {{"malloc", "none|" + echo + "\n"}, // for a buffer, which the child can do without
                  {"new", "none"},
                  {"pipe2", "none" + begun + "\n"},
                  {"fcntl", "none" + begun + "\n"},
                  {"fork", "none" + begun + " - Fork error. Exiting.\n"},
                  {"dup2", failure + "SystemExec child: Unable to exec.: Device or resource busy\n"},
                  {"execvp", failure + "SystemExec child: Unable to exec.: No such file or directory\n"}},
                 [](Faults::Kind kind, int number) { return runProgram(kind, number, -1); });
    failEachCall(echo + "\n", {{"wait", echo + "\n"}},
                 [](Faults::Kind kind, int number) { return runProgram(kind, -1, number); });
}

} // namespace
