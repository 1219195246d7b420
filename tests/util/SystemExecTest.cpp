#include "SystemExec.h"
#include "support/Files.h"

#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <thread>

static int s_signalInDelay = 0;

// The library's calls end here. The child's delay is only announced.
extern "C" __attribute__((visibility("default"))) unsigned sleep(unsigned seconds)
{
    ::dprintf(STDOUT_FILENO, "sleep %u\n", seconds);
    return static_cast<unsigned>(::raise(s_signalInDelay));
}

namespace {

using Texts = std::pair<std::string, std::string>;

/// Holds SIGCHLD back, so that the handler runs when a test lets it, and ignores SIGPIPE, as a host would.
struct SystemExecTest : testing::Test {
    SystemExecTest()
    {
        sigset_t child;
        sigemptyset(&child);
        sigaddset(&child, SIGCHLD);
        pthread_sigmask(SIG_BLOCK, &child, &m_before);
        std::signal(SIGPIPE, SIG_IGN);
    }
    ~SystemExecTest() override
    {
        se = nullptr;
        pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }

    void start(std::string command, std::vector<const char*> words = {})
    {
        words.push_back(nullptr);
        m_runner.setCommand(command);
        m_runner.setArgList(words.size() == 1 ? nullptr : const_cast<char**>(words.data()));
        m_runner.execute();
    }
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
    void expectHeld(int pipes)
    {
        EXPECT_EQ(openDescriptors(), m_descriptors + pipes);
        EXPECT_EQ(m_runner.getStdOut() + m_runner.getStdIn() + m_runner.getStdErr() == -3, pipes == 0);
    }

    sigset_t m_before{};
    SystemExec m_runner;
    const int m_descriptors = openDescriptors();
};

TEST_F(SystemExecTest, ChildRunsOnThreePipesUntilTheHandlerClosesThem)
{
    expectHeld(0);
    const std::string noFile = "SystemExec child: Unable to exec.: No such file or directory\n";
    const std::tuple<std::string, std::vector<const char*>, Texts, int> cases[] = {
        {"/bin/echo", {}, {"\n", ""}, 0},
        {"ls -l", {}, {"SystemExec child: ls -l: execl Error!:", noFile}, W_EXITCODE(1, 0)},
        {"sh", {"name", "-c", "echo $0; kill -KILL $$"}, {"name\n", ""}, SIGKILL},
        // What the caller does to these two signals stays out of the child.
        {"sh", {"", "-c", "kill -PIPE $$"}, {"", ""}, SIGPIPE},
        {"grep", {"", "-c", "^SigBlk:.0*$", "/proc/self/status"}, {"1\n", ""}, 0},
    };
    for (const auto& [command, words, texts, expectedStatus] : cases) {
        start(command, words);
        expectHeld(3);
        EXPECT_TRUE(talk() == texts) << command;
        int status = -1;
        ::waitpid(-1, &status, 0);
        EXPECT_EQ(status, expectedStatus) << command;
        letHandlerRun();
        expectHeld(0);
    }
}

TEST_F(SystemExecTest, ProgressLinesArriveOnceAndWholeAndTheChildWaitsASecond)
{
    CapturedStream output(stdout);
    // As by another thread, and by a parent that is late.
    ::pthread_atfork([] { std::fputs("other line\n", stdout); }, [] { ::usleep(10'000); }, nullptr);
    FILE* log = std::tmpfile();
    std::fputs("line", log);                       // which the child inherits and exit() would write again
    std::thread([=] { ::flockfile(log); }).join(); // as by a thread that reads it; nobody may wait for that
    start("ls -l");
    talk();
    const std::string pid = std::to_string(::waitpid(-1, nullptr, 0));
    ::funlockfile(log);
    EXPECT_EQ(::lseek(::fileno(log), 0, SEEK_END), 0);
    std::fclose(log);
    const std::string parent = "other line\nSystemExec parent process.  Command: ls -l: fork pid : " + pid +
                               " (getpid=" + std::to_string(::getpid()) + ")\n";
    const std::string child =
        "SystemExec: Excecuting command: ls -l\nSystemExec child: In forked process for ls -l, pid=" + pid +
        ", pgid=" + std::to_string(::getpgrp()) + "\nsleep 1\n";
    std::string text = output.text();
    const std::size_t position = text.find(parent); // before, in or behind what the child writes
    ASSERT_NE(position, text.npos) << text;
    EXPECT_EQ(text.erase(position, parent.size()), child);
}

TEST_F(SystemExecTest, ChildIsEndedInItsDelayWithoutTheCallersHandler)
{
    std::signal(SIGTERM, [](int) {}); // would let the child live
    s_signalInDelay = SIGTERM;
    start("true");
    s_signalInDelay = 0;
    int status = -1;
    ::waitpid(-1, &status, 0);
    EXPECT_EQ(status, SIGTERM);
    std::signal(SIGTERM, SIG_DFL);
}

TEST_F(SystemExecTest, RunsInARowLeaveNoPipeAndNoZombieAndTheHandlerTouchesNothingElse)
{
    for (int run = 0; run < 50; ++run, letHandlerRun())
        start("true");
    start("cat");
    start("cat"); // closes the pipes of the first, which ends; so the handler closes those of the second
    expectHeld(3);
    struct sigaction action {};
    sigaction(SIGCHLD, nullptr, &action);
    EXPECT_TRUE(action.sa_flags &
                SA_NOCLDSTOP); // the handler would wait for the end of a child that is stopped
    const int number = m_runner.getStdOut();
    letHandlerRun();
    letHandlerRun();
    expectHeld(0);
    ASSERT_EQ(::fcntl(STDIN_FILENO, F_DUPFD, number), number);
    errno = EXDEV;
    signalHandler(SIGCHLD); // finds neither pipes nor a child
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(::close(number), 0);
    start("true");
    signalHandler(SIGTERM);
    se = nullptr;
    signalHandler(SIGCHLD);
    expectHeld(3); // and they are the caller's now, as is the child
    EXPECT_GT(::waitpid(-1, nullptr, 0), 0);
    start("true");
    expectHeld(6);
    letHandlerRun();
    EXPECT_EQ(openDescriptors(), m_descriptors + 3);
}

TEST_F(SystemExecTest, CallerWithoutStandardStreamsGetsItsPipesAllTheSame)
{
    const pid_t caller = ::fork();
    if (caller == 0) {
        ::close_range(STDIN_FILENO, STDERR_FILENO, 0);
        start("cat"); // which must not get the progress lines
        ::_exit(talk("input") == Texts("input", "") ? 0 : 1);
    }
    int status = -1;
    ::waitpid(caller, &status, 0);
    EXPECT_EQ(status, 0);
}

} // namespace
