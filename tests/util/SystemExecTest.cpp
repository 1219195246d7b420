#include "SystemExec.h"
#include "support/Files.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <future>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>

static bool s_realDelay = false;

// The library's call ends here. Only one test waits for the child's delay.
extern "C" __attribute__((visibility("default"))) unsigned sleep(unsigned seconds)
{
    return s_realDelay ? static_cast<unsigned>(::usleep(seconds * 1'000'000)) : 0;
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
        EXPECT_TRUE(::write(m_runner.getStdIn(), input.data(), input.size()) >= 0 || errno == EPIPE);
        ::close(m_runner.getStdIn());
        const std::string pipe = "/dev/fd/";
        auto error = std::async(std::launch::async, readFile, pipe + std::to_string(m_runner.getStdErr()));
        return {readFile(pipe + std::to_string(m_runner.getStdOut())), error.get()};
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
    const std::string large(1 << 20, '\0');
    const std::string noFile = "SystemExec child: Unable to exec.: No such file or directory\n";
    const std::tuple<std::string, std::vector<const char*>, std::string, Texts, int> cases[] = {
        {"/bin/echo", {}, "", {"\n", ""}, 0},
        {"ls", {"ls", "-d", "/"}, "", {"/\n", ""}, 0},
        {"ls -l", {}, "", {"SystemExec child: ls -l: execl Error!:", noFile}, W_EXITCODE(1, 0)},
        {"cat", {}, "there and back", {"there and back", ""}, 0},
        {"sh", {"name", "-c", "echo $0; kill -KILL $$"}, "never read", {"name\n", ""}, SIGKILL},
        {"sh", {"", "-c", "head -c1048576 /dev/zero; head -c1048576 /dev/zero >&2"}, "", {large, large}, 0},
        // What the caller does to these two signals stays out of the child.
        {"sh", {"", "-c", "kill -PIPE $$"}, "", {"", ""}, SIGPIPE},
        {"grep", {"", "-cE", "^SigBlk:.{12}[02468ace]", "/proc/self/status"}, "", {"1\n", ""}, 0},
    };
    for (const auto& [command, words, input, texts, expectedStatus] : cases) {
        start(command, words);
        expectHeld(3);
        EXPECT_TRUE(talk(input) == texts) << command;
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
    FILE* log = std::tmpfile();
    std::fputs("line", log); // which the child inherits and exit() would write again
    s_realDelay = true;
    const auto before = std::chrono::steady_clock::now();
    start("ls -l");
    EXPECT_EQ(talk().first, "SystemExec child: ls -l: execl Error!:");
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::seconds(1));
    s_realDelay = false;
    const std::string pid = std::to_string(::waitpid(-1, nullptr, 0));
    const std::string self = std::to_string(::getpid()), group = std::to_string(::getpgrp());
    std::fseek(log, 0, SEEK_END);
    EXPECT_EQ(std::ftell(log), 4);
    std::fclose(log);
    const std::string head = "SystemExec: Excecuting command: ls -l\n";
    const std::string parent =
        "SystemExec parent process.  Command: ls -l: fork pid : " + pid + " (getpid=" + self + ")\n";
    const std::string child =
        "SystemExec child: In forked process for ls -l, pid=" + pid + ", pgid=" + group + "\n";
    const std::string text = output.text();
    EXPECT_TRUE(text == head + parent + child || text == head + child + parent) << text;
}

TEST_F(SystemExecTest, RunsInARowLeaveNoPipeAndNoZombie)
{
    for (int run = 0; run < 50; ++run, letHandlerRun())
        start("true");
    start("cat");
    start("cat"); // closes the pipes of the first, which ends; so the handler closes those of the second
    expectHeld(3);
    letHandlerRun();
    letHandlerRun();
    expectHeld(0);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
}

TEST_F(SystemExecTest, HandlerClosesAndReapsNothingThatIsNotItsOwn)
{
    start("true");
    const int number = m_runner.getStdOut();
    letHandlerRun();
    ASSERT_EQ(::fcntl(STDIN_FILENO, F_DUPFD, number), number);
    errno = EXDEV;
    signalHandler(SIGCHLD); // finds neither pipes nor a child
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(::close(number), 0);

    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(0);
    signalHandler(SIGTERM);
    se = nullptr;
    signalHandler(SIGCHLD);
    EXPECT_EQ(::waitpid(child, nullptr, 0), child);
}

TEST_F(SystemExecTest, WithoutPipesNothingIsLeftOpen)
{
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    for (int room = 0; room < 6; ++room) {
        CapturedStream error(stderr);
        const int next = ::dup(STDERR_FILENO);
        ::close(next);
        const rlimit tight = {static_cast<rlim_t>(next + room), limit.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &tight);
        m_runner.execute();
        ::setrlimit(RLIMIT_NOFILE, &limit);
        EXPECT_EQ(error.text(), " SystemExec: \n");
    }
    expectHeld(0);
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
