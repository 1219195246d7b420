// SPDX-License-Identifier: BSD-3-Clause
#include "SystemExec.h"
#include "support/Files.h"
#include "support/OtherThread.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/wait.h>

namespace {

using Outcome = SystemExec::Outcome;
using Arguments = std::array<const char*, 4>;

constexpr std::size_t kMuch = 1U << 20;

/// Every end is closed and every child waited for, by nobody else.
struct ProgramTest : testing::Test {
    ProgramTest() { std::signal(SIGPIPE, SIG_IGN); }
    ~ProgramTest() override
    {
        EXPECT_EQ(openDescriptors(), m_descriptors);
        EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    }

    static Arguments script(const char* text) { return {"sh", "-c", text, nullptr}; }
    Outcome run(const Arguments& args, int timeoutMs = 60'000)
    {
        m_job.args = args.data();
        m_job.timeoutMs = timeoutMs;
        return SystemExec::run(m_job, m_result);
    }

    const int m_descriptors = openDescriptors();
    SystemExec::Job m_job;
    SystemExec::Result m_result;
};

TEST_F(ProgramTest, EndsAsItsOutcomeAndStatusTell)
{
    m_job.input = "a text";
    const std::tuple<const char*, Outcome, int, const char*, const char*> rows[] = {
        {"cat; echo error >&2; exit 3", Outcome::Ended, W_EXITCODE(3, 0), "a text", "error\n"},
        {"kill -9 $$", Outcome::Ended, SIGKILL, "", ""},
        // Not the caller's group, mask and dispositions: its SIGUSR1 and SIGUSR2 only.
        {"read -r a b c d group rest </proc/$$/stat; [ $group = $$ ] && echo group", Outcome::Ended, 0,
         "group\n", ""},
        {"exec grep -chE '^Sig(Blk:.0*a00|Ign:.*[02468ace][89a-f]..)$' /proc/self/status", Outcome::Ended, 0,
         "2\n", ""},
        // Ended by its time, and by itself when it is told to.
        {"exec >&- 2>&-; exec sleep 99", Outcome::Overdue, SIGTERM, "", ""},
        {"trap 'echo bye; exit 3' TERM; sleep 99 & wait", Outcome::Overdue, W_EXITCODE(3, 0), "bye\n", ""},
        {"trap '' TERM; echo on; sleep 99", Outcome::Overdue, SIGKILL, "on\n", ""},
        {"kill -STOP $$", Outcome::Overdue, SIGKILL, "", ""},
    };
    std::signal(SIGUSR2, SIG_IGN);
    sigset_t blocked, before;
    sigemptyset(&blocked);
    for (const int signal : {SIGCHLD, SIGUSR1, SIGUSR2})
        sigaddset(&blocked, signal);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    for (const auto& [text, outcome, status, output, error] : rows) {
        SCOPED_TRACE(text);
        EXPECT_EQ(run(script(text), outcome == Outcome::Overdue ? 300 : -1), outcome);
        EXPECT_EQ(m_result.status, status);
        EXPECT_EQ(m_result.output, output);
        EXPECT_EQ(m_result.error, error);
        EXPECT_EQ(m_result.reason, 0);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    std::signal(SIGUSR2, SIG_DFL);
}

TEST_F(ProgramTest, IsNotStartedForTheSystemsReason)
{
    const std::tuple<const char*, const char*, int> rows[] = {
        {"no-such-program", nullptr, ENOENT}, {"", nullptr, ENOENT},     {"/etc/passwd", nullptr, EACCES},
        {"true", "/no-such-folder", ENOENT},  {"/etc", nullptr, EACCES},
    };
    for (const auto& [program, folder, reason] : rows) {
        SCOPED_TRACE(program);
        m_job.folder = folder;
        m_result.output = "from before";
        EXPECT_EQ(run({program}), Outcome::NotStarted);
        EXPECT_EQ(m_result.reason, reason);
        EXPECT_EQ(m_result.status, -1);
        EXPECT_EQ(m_result.output, "");
    }
}

TEST_F(ProgramTest, BeginsInItsFolderWithItsEnvironment)
{
    char variable[] = "NAME=value", path[] = "PATH=/usr/bin:/bin";
    char* environment[] = {variable, path, nullptr};
    m_job.environment = environment;
    m_job.folder = "/usr/bin";
    EXPECT_EQ(run(script("echo $NAME$HOME; exec ./pwd")), Outcome::Ended);
    EXPECT_EQ(m_result.output, "value\n/usr/bin\n");
}

TEST_F(ProgramTest, ReadsAndPrintsMuchAtOnce)
{
    std::string input(kMuch, 'x');
    input.replace(kMuch / 2, 1, 1, '\0');
    m_job.input = input;
    for (const std::size_t limit : {kMuch * 2, kMuch, kMuch - 1, std::size_t{1}, std::size_t{0}}) {
        SCOPED_TRACE(limit);
        m_job.outputLimit = limit;
        EXPECT_EQ(run(script("exec tee /dev/stderr")), Outcome::Ended);
        EXPECT_EQ(m_result.status, 0);
        EXPECT_TRUE(m_result.output == input.substr(0, limit)) << m_result.output.size();
        EXPECT_TRUE(m_result.error == m_result.output) << m_result.error.size();
    }
    m_job.outputLimit = kMuch;
    EXPECT_EQ(run(script("exec cat")), Outcome::Ended);
    m_job.input = m_result.output;
    EXPECT_EQ(run(script("exec cat")), Outcome::Ended);
    EXPECT_TRUE(m_result.output == input) << "of what the one before printed";
    m_job.input = input;
    EXPECT_EQ(run(script("exec head -c 9 /dev/null")), Outcome::Ended); // though the rest isn't read
    EXPECT_EQ(run(script("exec sleep 99"), 300), Outcome::Overdue);
    EXPECT_EQ(run(script("exec cat /dev/zero"), 300), Outcome::Overdue);
}

TEST_F(ProgramTest, WhatItLeavesBehindHoldsUpNothing)
{
    // The one stays in the group; the others leave it with the outputs, one of which never stops printing
    // before nobody reads it.
    const TempDir folder;
    m_job.folder = folder.path().c_str();
    m_job.outputLimit = 200'000;
    EXPECT_EQ(run(script("sleep 99 & echo $!; setsid sh -c 'echo $$ >sleeps; exec sleep 99' & "
                         "setsid sh -c 'echo >prints; exec yes' & "
                         "until [ -s sleeps ] && [ -s prints ]; do sleep 0.01; done; sleep 0.1")),
              Outcome::Ended);
    EXPECT_EQ(m_result.status, 0);
    int left = 0, gone = 0;
    ASSERT_EQ(std::sscanf(m_result.output.c_str(), "%d", &left), 1);
    ASSERT_EQ(std::sscanf(readFile(folder.path("sleeps")).c_str(), "%d", &gone), 1);
    const std::string leftOne = "/proc/" + std::to_string(left) + "/cmdline";
    for (int i = 0; i < 1000 && !readFile(leftOne).empty(); ++i)
        ::usleep(10'000);
    EXPECT_EQ(readFile(leftOne), "");
    EXPECT_EQ(::kill(gone, SIGKILL), 0);
}

TEST_F(ProgramTest, StopsWhenItIsTold)
{
    const int event = ::eventfd(0, EFD_CLOEXEC);
    m_job.stop.fd = event;
    EXPECT_EQ(run(script("exec true")), Outcome::Ended);
    ::eventfd_write(event, 1);
    EXPECT_EQ(run(script("exec sleep 99"), -1), Outcome::Overdue);
    EXPECT_EQ(m_result.status, SIGTERM);
    ::close(event);
}

TEST_F(ProgramTest, CallerWithoutStandardStreamsKeepsTheirNumbers)
{
    const pid_t caller = ::fork();
    if (caller == 0) {
        ::close_range(STDIN_FILENO, STDERR_FILENO, 0);
        SystemExec::Child child;
        const char* const args[] = {"cat", nullptr};
        m_job.args = args;
        m_job.input = "input";
        bool isRight = child.start(m_job) == 0 && ::fcntl(STDIN_FILENO, F_GETFD) == -1 &&
                       ::fcntl(STDOUT_FILENO, F_GETFD) == -1 && ::fcntl(STDERR_FILENO, F_GETFD) == -1;
        isRight = isRight && child.end() == SIGKILL;
#ifndef __SANITIZE_THREAD__    // to which that is a race
        std::thread other([] { // which goes on printing
            while (true)
                for (const int stream : {STDOUT_FILENO, STDERR_FILENO})
                    [[maybe_unused]] const ssize_t count = ::write(stream, "noise", 5);
        });
        other.detach();
#endif
        for (int i = 0; i < 50; ++i)
            isRight = isRight && SystemExec::run(m_job, m_result) == Outcome::Ended &&
                      m_result.output == "input" && m_result.error.empty();
        ::_exit(isRight ? 0 : 1);
    }
    int status = -1;
    ::waitpid(caller, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST_F(ProgramTest, StatusIsUnknownWhereSomethingElseWaits)
{
    std::signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(run(script("echo text; exit 3")), Outcome::Ended);
    EXPECT_EQ(m_result.status, -1);
    EXPECT_EQ(m_result.output, "text\n");
    EXPECT_EQ(run(script("exec sleep 99"), 100), Outcome::Overdue);
    EXPECT_EQ(m_result.status, -1);
    std::signal(SIGCHLD, SIG_DFL);
}

TEST_F(ProgramTest, ManyRunBesideEachOtherAndBesideOtherChildren)
{
    std::array<int, 4> right{};
    {
        std::vector<OtherThread> threads;
        threads.reserve(right.size());
        for (std::size_t i = 0; i < right.size(); ++i)
            threads.emplace_back([&count = right[i], i] {
                const std::string status = "cat; exit " + std::to_string(i);
                const Arguments args = script(status.c_str());
                for (int turn = 0; turn < 10; ++turn) {
                    const std::string text(100'000, static_cast<char>('a' + turn));
                    SystemExec::Job job;
                    job.args = args.data();
                    job.input = text;
                    job.outputLimit = text.size();
                    SystemExec::Result result;
                    SystemExec::run(job, result);
                    count +=
                        result.status == W_EXITCODE(static_cast<int>(i), 0) && result.output == text ? 1 : 0;
                }
            });
        for (int turn = 0; turn < 20; ++turn) {
            const pid_t other = ::fork();
            if (other == 0)
                ::raise(SIGKILL); // a sanitizer looks for threads at an exit
            int status = -1;
            EXPECT_EQ(::waitpid(other, &status, 0), other); // nobody has taken it
            EXPECT_EQ(status, SIGKILL);
        }
    }
    EXPECT_EQ(right, (std::array<int, 4>{10, 10, 10, 10}));
}

TEST_F(ProgramTest, ChildIsTalkedToAndEndsWhenItsInputDoes)
{
    const char* const args[] = {"cat", nullptr};
    m_job.args = args;
    SystemExec::Child child;
    int status = 77;
    EXPECT_TRUE(child.waitFor(0, status));
    EXPECT_EQ(status, -1);
    for (int turn = 0; turn < 2; ++turn) { // the second ends the first
        ASSERT_EQ(child.start(m_job), 0);
        EXPECT_EQ(openDescriptors(), m_descriptors + 4);
        for (const int end : {child.getStdIn(), child.getStdOut(), child.getStdErr()})
            EXPECT_EQ(::fcntl(end, F_GETFD), FD_CLOEXEC);
    }
    status = 77;
    EXPECT_FALSE(child.waitFor(0, status));
    EXPECT_FALSE(child.waitFor(50, status));
    EXPECT_EQ(status, 77);
    char text[5] = "";
    EXPECT_EQ(::write(child.getStdIn(), "text", 4), 4);
    EXPECT_EQ(::read(child.getStdOut(), text, sizeof text), 4);
    EXPECT_EQ(::close(child.takeStdIn()), 0);
    EXPECT_EQ(child.getStdIn(), -1);
    for (int turn = 0; turn < 2; ++turn) {
        EXPECT_TRUE(child.waitFor(-1, status));
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(child.getPid(), -1);
    EXPECT_EQ(::read(child.getStdOut(), text, sizeof text), 0);
    EXPECT_EQ(child.end(), 0);
    EXPECT_EQ(child.getStdOut(), -1);
    m_job.folder = "/no-such-folder";
    EXPECT_EQ(child.start(m_job), ENOENT);
    EXPECT_TRUE(child.waitFor(0, status));
    EXPECT_EQ(status, -1); // not that of the one before
}

TEST_F(ProgramTest, ChildOutlivesACancelledWaitAndACopyInAnotherProcess)
{
    const Arguments args = script("sleep 99; exit 3");
    m_job.args = args.data();
    SystemExec::Child child;
    ASSERT_EQ(child.start(m_job), 0);
    int status = 77;
    EXPECT_FALSE(returnsWhenCancelled([&] { child.waitFor(-1, status); }));
    const pid_t copy = ::fork();
    if (copy == 0) {
        child.end();
        ::_exit(0);
    }
    ::waitpid(copy, nullptr, 0);
    EXPECT_FALSE(child.waitFor(50, status));
    bool hasEnded = false;
    EXPECT_TRUE(returnsWhenCancelled([&] { hasEnded = child.end() == SIGKILL; }));
    EXPECT_TRUE(hasEnded);
}

} // namespace
