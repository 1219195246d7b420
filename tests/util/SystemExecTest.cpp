// SPDX-License-Identifier: BSD-3-Clause
#include "SystemExec.h"
#include "support/Files.h"
#include "support/Interposed.h"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>

static int s_signalInFork = 0;
static int s_signalInDelay = 0;
static bool s_writesInFork = false;
static bool s_stopsAtExit = false;
static std::array<int, 3> s_closed{}; // last
static std::size_t s_closings = 0;

// The library's calls end here. The child's delay is only announced.
INTERPOSED unsigned sleep(unsigned seconds)
{
    ::dprintf(STDOUT_FILENO, "sleep %u\n", seconds);
    return static_cast<unsigned>(::raise(s_signalInDelay));
}

INTERPOSED int close(int number)
{
    s_closed[s_closings++ % s_closed.size()] = number;
    return nextDefinition<decltype(::close)>("close")(number);
}

namespace {

// As by another thread, by a parent that is late, and by whoever signals a child at once. Once set, they
// stay.
const int s_forkHandlers = ::pthread_atfork(
    [] {
        if (s_writesInFork)
            std::fputs("other line\n", stdout);
    },
    [] {
        if (s_writesInFork)
            ::usleep(10'000);
    },
    [] { ::raise(s_signalInFork); });

using Texts = std::pair<std::string, std::string>;
using Words = std::vector<std::string>;

const Texts kFailure = {"SystemExec child: ls -l: execl Error!:",
                        "SystemExec child: Unable to exec.: No such file or directory\n"};

/// Holds SIGCHLD back, so that the handler runs when a test lets it, and ignores SIGPIPE, as a host would.
struct SystemExecTest : testing::Test {
    SystemExecTest()
    {
        sigset_t child;
        sigemptyset(&child);
        sigaddset(&child, SIGCHLD);
        pthread_sigmask(SIG_BLOCK, &child, &m_before);
        std::signal(SIGPIPE, SIG_IGN);
        ::setenv("PATH", "/usr/bin:/bin", 1); // a folder that may not be read would change the texts
    }
    ~SystemExecTest() override
    {
        se = nullptr;
        pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }

    static void start(SystemExec& runner, std::string command, const Words& words = {})
    {
        runner.setCommand(command);
        runner.execute(words);
    }
    void start(const std::string& command, const Words& words = {}) { start(m_runner, command, words); }
    /// Give the child all of its input, and read both outputs to their end.
    Texts talk(const std::string& input = {})
    {
        EXPECT_GE(::write(m_runner.getStdIn(), input.data(), input.size()), 0);
        ::close(m_runner.getStdIn());
        const std::string pipe = "/dev/fd/";
        return {readFile(pipe + std::to_string(m_runner.getStdOut())),
                readFile(pipe + std::to_string(m_runner.getStdErr()))};
    }
    void letHandlerRun() { sigsuspend(&m_before); }
    int statusAfterHandler()
    {
        letHandlerRun();
        int status = -1;
        EXPECT_TRUE(m_runner.getStatus(status));
        return status;
    }
    void expectHeld(int pipes)
    {
        EXPECT_EQ(openDescriptors(), m_descriptors + pipes);
        for (const int end : {m_runner.getStdOut(), m_runner.getStdIn(), m_runner.getStdErr()})
            EXPECT_EQ(::fcntl(end, F_GETFD), pipes == 0 ? -1 : FD_CLOEXEC);
    }

    sigset_t m_before{};
    SystemExec m_runner;
    const int m_descriptors = openDescriptors();
};

TEST_F(SystemExecTest, ChildRunsOnThreePipesUntilTheHandlerClosesThemAndKeepsItsStatus)
{
    std::signal(SIGCHLD, SIG_IGN);
    std::signal(SIGUSR2, SIG_IGN);
    std::signal(SIGXFSZ, SIG_DFL);
    char text[] = "text";
    char* list[] = {text, text, nullptr};
    m_runner.setArgList(list); // which a list of strings leaves aside
    expectHeld(0);
    EXPECT_EQ(m_runner.getPid(), -1);
    const std::tuple<std::string, Words, Texts, int> cases[] = {
        // What the caller does to SIGCHLD and SIGPIPE, and we to SIGXFSZ, stays out of the child, which must
        // not end before its input, and another signal that it ignores stays ignored.
        {"grep",
         {"", "-chE", "^Sig(Blk:.0*|Ign:.*[02468ace].[02468ace].[89a-f]..)$", "/proc/self/status", "-"},
         {"2\n0\n", ""},
         0},
        {"sh", {"", "-c", "kill -PIPE $$"}, {"", ""}, SIGPIPE},
        {"ls -l", {}, kFailure, W_EXITCODE(1, 0)},
        {"sh", {"name", "-c", "echo $0 $$; kill -KILL $$"}, {"name ", ""}, SIGKILL},
        {"/bin/echo", {}, {"\n", ""}, 0},
    };
    for (auto [command, words, texts, expectedStatus] : cases) {
        SCOPED_TRACE(command);
        start(command, words);
        expectHeld(3);
        if (texts.first == "name ")
            texts.first += std::to_string(m_runner.getPid()) + "\n";
        EXPECT_EQ(talk(), texts);
        int status = 77;
        EXPECT_FALSE(m_runner.getStatus(status));
        EXPECT_EQ(status, 77);
        EXPECT_EQ(statusAfterHandler(), expectedStatus);
        expectHeld(0);
    }
    m_runner.execute();
    EXPECT_EQ(talk(), Texts("text\n", ""));
    int status = statusAfterHandler();
    EXPECT_FALSE(SystemExec().getStatus(status));
}

TEST_F(SystemExecTest, ProgressLinesArriveOnceAndWholeAndTheChildWaitsASecond)
{
    CapturedStream output(stdout);
    s_writesInFork = true;
    start("true");
    s_writesInFork = false;
    talk();
    const std::string pid = std::to_string(::waitpid(-1, nullptr, 0));
    const std::string parent = "other line\nSystemExec parent process.  Command: true: fork pid : " + pid +
                               " (getpid=" + std::to_string(::getpid()) + ")\n";
    const std::string child =
        "SystemExec: Excecuting command: true\nSystemExec child: In forked process for true, pid=" + pid +
        ", pgid=" + std::to_string(::getpgrp()) + "\nsleep 1\n";
    std::string text = output.arrived();
    const std::size_t position = text.find(parent); // before, in or behind what the child writes
    ASSERT_NE(position, text.npos) << text;
    EXPECT_EQ(text.erase(position, parent.size()), child);
}

TEST_F(SystemExecTest, FailedChildWritesNothingOfTheCallersAndItsPipesEndBeforeAnExitHandlerThatWaits)
{
    std::atexit([] { // of the child; it stops if all is well
        int written = 0;
        for (int stream = STDIN_FILENO; s_stopsAtExit && stream <= STDERR_FILENO; ++stream)
            written += ::write(stream, "mine", 4) > 0 ? 1 : 0;
        if (written == 3 && ::raise(SIGPIPE) == 0)
            ::raise(SIGSTOP);
    });
    CapturedStream errors(stderr);
    char buffer[BUFSIZ];
    std::setvbuf(stderr, buffer, _IOFBF, sizeof buffer);
    FILE* log = std::tmpfile();
    for (FILE* stream : {stderr, log})
        std::fputs("mine", stream);
    std::thread([=] { ::flockfile(log); }).join(); // as by a thread that reads it; nobody may wait for that
    start("ls -l");
    EXPECT_EQ(talk(), kFailure);
    EXPECT_EQ(statusAfterHandler(), W_EXITCODE(1, 0));
    s_stopsAtExit = true;
    start("ls -l");
    s_stopsAtExit = false;
    EXPECT_EQ(talk(), kFailure);
    siginfo_t child{};
    ::waitid(P_ALL, 0, &child, WSTOPPED | WEXITED | WNOWAIT);
    EXPECT_EQ(child.si_code, CLD_STOPPED);
    ::kill(m_runner.getPid(), SIGKILL);
    EXPECT_EQ(statusAfterHandler(), SIGKILL);
    ::funlockfile(log);
    EXPECT_EQ(::lseek(::fileno(log), 0, SEEK_END), 0);
    std::fclose(log);
    std::setvbuf(stderr, nullptr, _IONBF, 0);
}

TEST_F(SystemExecTest, SignalMeetsNoHandlerOfTheCallerInTheChildAndABrokenPipeDoesNotEndIt)
{
    for (const int signal : {SIGTERM, SIGPIPE})
        std::signal(signal, [](int) {});
    const std::tuple<int, int, int> cases[] = {{SIGTERM, 0, SIGTERM}, {0, SIGTERM, SIGTERM}, {0, SIGPIPE, 0}};
    for (const auto& [inFork, inDelay, expectedStatus] : cases) {
        s_signalInFork = inFork;
        s_signalInDelay = inDelay;
        start("true");
        EXPECT_EQ(statusAfterHandler(), expectedStatus);
    }
    s_signalInDelay = 0;
    std::signal(SIGTERM, SIG_DFL);
}

TEST_F(SystemExecTest, ChildRunsWhereStandardOutputIsAFullFile)
{
    std::signal(SIGXFSZ, [](int) {});
    rlimit limit{};
    ::getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit low{1U << 20, limit.rlim_max};
    CapturedStream output(stdout);
    ::lseek(STDOUT_FILENO, 1 << 20, SEEK_SET);
    ::setrlimit(RLIMIT_FSIZE, &low);
    start("true");
    ::setrlimit(RLIMIT_FSIZE, &limit);
    output.text();
    EXPECT_EQ(statusAfterHandler(), 0);
}

TEST_F(SystemExecTest, ChildThatIsKilledAtOnceIsReapedWhileTheOutputBlocks)
{
    pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    const auto holdUp = [](void* runner, const char* text, std::size_t size) {
        int status = -1;
        const bool waits = std::string_view(text, size).find("parent process") != std::string_view::npos;
        for (int i = 0; waits && i < 500 && !static_cast<SystemExec*>(runner)->getStatus(status); ++i)
            ::usleep(10'000);
        return static_cast<ssize_t>(size);
    };
    FILE* const output =
        std::exchange(stdout, ::fopencookie(&m_runner, "w", {nullptr, holdUp, nullptr, nullptr}));
    s_signalInFork = SIGKILL;
    s_writesInFork = true; // the fork returns late
    start("true");
    s_writesInFork = false;
    s_signalInFork = 0;
    std::fclose(std::exchange(stdout, output));
    expectHeld(0);
    int status = -1;
    EXPECT_TRUE(m_runner.getStatus(status));
    EXPECT_EQ(status, SIGKILL);
}

TEST_F(SystemExecTest, RunsInARowLeaveNoPipeAndNoZombie)
{
    for (int run = 0; run < 50; ++run, letHandlerRun())
        start("true");
    start("cat");
    start("cat"); // closes the pipes of the first, which ends; so the handler closes those of the second
    expectHeld(3);
    letHandlerRun();
    EXPECT_EQ(statusAfterHandler(), 0);
    expectHeld(0);
    start("true");
    const std::array<int, 3> ends = {m_runner.getStdErr(), m_runner.getStdIn(), m_runner.getStdOut()};
    s_closings = 0;
    EXPECT_EQ(statusAfterHandler(), 0);
    EXPECT_EQ(s_closed, ends); // whoever reads -1 for the last may destroy the runner
    if (::fork() == 0)
        ::_exit(1);
    EXPECT_EQ(statusAfterHandler(), 0); // not the stranger's
    EXPECT_EQ(::wait(nullptr), -1);
}

TEST_F(SystemExecTest, HandlerLeavesARunnerThatIsGoneAndTheRestOfTheProcessAlone)
{
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max};
    for (const std::string last : {"handled", "failed", "under way"}) {
        SCOPED_TRACE(last);
        alignas(SystemExec) std::array<int, sizeof(SystemExec) / sizeof(int)> memory{};
        auto* runner = new (memory.data()) SystemExec;
        start(*runner, "true");
        if (last == "failed") {
            ::setrlimit(RLIMIT_NOFILE, &none);
            start(*runner, "true");
            ::setrlimit(RLIMIT_NOFILE, &limit);
            EXPECT_EQ(runner->getPid(), -1);
        }
        if (last == "handled")
            letHandlerRun();
        const int ends[] = {runner->getStdErr(), runner->getStdIn(), runner->getStdOut()};
        runner->~SystemExec();
        const int number = ::dup(STDIN_FILENO);
        memory.fill(number);
        const auto before = memory;
        errno = EXDEV;
        signalHandler(SIGCHLD);
        EXPECT_EQ(errno, EXDEV);
        EXPECT_EQ(memory, before);
        EXPECT_EQ(::close(number), 0);
        for (const int end : ends)
            EXPECT_EQ(::close(end), last == "under way" ? 0 : -1);
    }
    struct sigaction action {};
    sigaction(SIGCHLD, nullptr, &action);
    EXPECT_TRUE(action.sa_flags & SA_NOCLDSTOP); // or it would wait for the end of a child that is stopped
    EXPECT_TRUE(action.sa_flags & SA_RESTART);
    EXPECT_EQ(action.sa_handler, signalHandler);
}

TEST_F(SystemExecTest, PipesOfARunnerThatIsNotNamedAnyMoreAreTheCallers)
{
    start("true");
    signalHandler(SIGTERM);
    se = nullptr;
    signalHandler(SIGCHLD);
    expectHeld(3);
    EXPECT_EQ(::waitpid(m_runner.getPid(), nullptr, 0), m_runner.getPid()); // as is the child
    for (const int end : {m_runner.getStdOut(), m_runner.getStdIn(), m_runner.getStdErr()})
        ::close(end);
    SystemExec other;
    start(other, "true"); // gets the same numbers
    start("true");
    expectHeld(6);
    start(other, "true");
    expectHeld(9);
    while (::wait(nullptr) > 0) {
    }
    signalHandler(SIGCHLD);
    expectHeld(6);
}

} // namespace
