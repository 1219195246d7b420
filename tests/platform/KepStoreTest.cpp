// SPDX-License-Identifier: BSD-3-Clause
#include "support/Files.h"
#include "support/OtherThread.h"

#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kep.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>

namespace {

/// Who first asks for a property takes the file: only children of the test do.
struct KepStoreTest : testing::Test {
    KepStoreTest() { ::setenv("KEP_STORE", m_file.c_str(), 1); }

    /// Start a program that succeeds if @p action does.
    template <typename Action>
    pid_t start(Action action)
    {
        std::fflush(stdout);
        const pid_t child = ::fork();
        if (child == 0) {
            const bool isTold = std::freopen(m_lines.c_str(), "w", stderr) != nullptr;
            std::setbuf(stderr, nullptr);
            std::exit(isTold && action() ? 0 : 1); // not at once: what it reached is to be counted
        }
        return child;
    }
    /// Run it to its end. @return what it wrote on standard error.
    template <typename Action>
    std::string run(Action action)
    {
        int status = -1;
        ::waitpid(start(action), &status, 0);
        EXPECT_EQ(status, 0);
        return readFile(m_lines);
    }

    const TempDir m_folder;
    const std::string m_file = m_folder.path("store"), m_lines = m_folder.path("lines");
    const std::string m_told = "libkep: properties in " + m_file + ": ";
};

bool attached()
{
    return kep_init("host", 1, 1) == 1;
}

bool isNumber(int expected)
{
    int number = 0;
    return kep_config_get_int("p", &number) == 1 && number == expected;
}

TEST_F(KepStoreTest, NextProgramFindsWhatWasWrittenLast)
{
    const auto write = [&] {
        bool done = true;
        for (const int value : {5, INT_MIN}) // the first makes the file
            done = returnsWhenCancelled([&] { kep_config_set_int("p", value, true); }) && done;
        done = done && kep_config_set_bool("truth", true, true) &&
               kep_config_set_str_n("text", "earlier", 1) && attached() && kep_config_set_str_n("", "", 1) &&
               kep_config_set_str_n("text", "\xff'\";--", 1);
        int status = -1;
        const auto keepsNothing = [] { // and changes nothing with the same value
            return kep_config_set_int("p", 6, true) == 0 && kep_config_set_int("p", INT_MIN, true) == 1;
        };
        ::waitpid(start(keepsNothing), &status, 0); // a child of fork
        return done && status == 0;
    };
    const auto read = [] {
        bool truth = false;
        char text[8] = "", nothing[8] = "-";
        return isNumber(INT_MIN) && kep_config_get_bool("truth", &truth) && truth &&
               kep_config_get_str_n("text", text, 8) && std::strcmp(text, "\xff'\";--") == 0 &&
               kep_config_get_str_n("", nothing, 8) && *nothing == '\0';
    };
    EXPECT_EQ(run(write), "");
    EXPECT_EQ(run(read), "");
}

TEST_F(KepStoreTest, KillLeavesTheOldOrTheNewValue)
{
    int pipe[2], last = 0;
    ASSERT_EQ(::pipe2(pipe, O_NONBLOCK), 0);
    const auto report = [&](int value) { return ::write(pipe[1], &value, sizeof value) == sizeof value; };
    for (int round = 0; round < 15; ++round) {
        const pid_t writer = start([&] {
            for (int i = last + 1; kep_config_set_int("p", i, true) == 1 && report(i);)
                ++i;
            return false;
        });
        ::usleep(static_cast<useconds_t>(round * round * 300)); // at first while the file is made
        pollfd told{pipe[0], POLLIN, 0};
        ::poll(&told, 1, round < 10 ? 0 : 60'000);
        ::kill(writer, SIGKILL);
        ::waitpid(writer, nullptr, 0);
        for (int i = 0; ::read(pipe[0], &i, sizeof i) == sizeof i;)
            last = i;
        const auto check = [&] {
            int found = 0;
            kep_config_get_int("p", &found);
            return attached() && report(found) && (found == last || found == last + 1);
        };
        EXPECT_EQ(run(check), "") << "round " << round << ", told last: " << last;
        EXPECT_EQ(::read(pipe[0], &last, sizeof last), sizeof last);
    }
    EXPECT_GT(last, 0);
    ::close(pipe[0]);
    ::close(pipe[1]);
}

TEST_F(KepStoreTest, BrokenFileIsRefusedInOneLineAndLeftAlone)
{
    EXPECT_EQ(run([] { return kep_config_set_str_n("p", std::string(20'000, 'x').c_str(), 1) == 1; }), "");
    const std::string whole = readFile(m_file);
    std::string scratched = whole;
    scratched.replace(4096, 100, 100, 'x');
    const std::pair<std::string, std::string> rows[] = {
        {"", "no such table: properties"},
        {"number = 5", "file is not a database"},
        {whole.substr(0, 12'288), "database disk image is malformed"},
        {scratched, "the file is damaged"},
    };
    for (const auto& [content, reason] : rows) {
        std::ofstream(m_file, std::ios::binary) << content;
        const std::string line = m_told + reason + "\n";
        const auto use = [&] {
            char text[4];
            return kep_config_set_int("p", 1, true) == 0 && kep_config_get_str_n("p", text, 4) == 0 &&
                   readFile(m_lines) == line && !attached();
        };
        EXPECT_EQ(run(use), line + line);
        EXPECT_TRUE(readFile(m_file) == content) << reason;
    }
    ::setenv("KEP_STORE", m_folder.path("no/store").c_str(), 1);
    EXPECT_EQ(run([] { return !attached(); }),
              "libkep: properties in " + m_folder.path("no/store") + ": unable to open database file\n");
    ::setenv("KEP_STORE", "", 1);
    EXPECT_EQ(run([] { return attached() && kep_config_set_int("p", 1, true) == 1; }), "");
}

TEST_F(KepStoreTest, FileOfAnotherProcessIsRefusedUntilThatEnds)
{
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    const pid_t other = start([&] { return attached() && ::write(pipe[1], "", 1) == 1 && ::pause() == 0; });
    char byte = 0;
    ASSERT_EQ(::read(pipe[0], &byte, 1), 1);
    const auto attachTwice = [&] {
        const bool isRefused = !attached();
        ::kill(other, SIGKILL);
        while (::kill(other, 0) == 0 && !attached()) // the test reaps it
            ::usleep(1000);
        return isRefused && attached();
    };
    EXPECT_EQ(run(attachTwice).find(m_told + "database is locked\n"), 0U);
    ::waitpid(other, nullptr, 0);
    ::close(pipe[0]);
    ::close(pipe[1]);
}

TEST_F(KepStoreTest, FullDiskRefusesAWriteAndLeavesTheValue)
{
    const auto write = [] {
        const std::string large(100'000, 'x');
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{};
        ::getrlimit(RLIMIT_FSIZE, &limit);
        const rlimit small{16'384, limit.rlim_max};
        bool done = kep_config_set_int("p", 1, true) == 1 && ::setrlimit(RLIMIT_FSIZE, &small) == 0;
        for (int i = 0; i < 2; ++i) // told once
            done = done && kep_config_set_str_n("p", large.c_str(), 1) == 0 && isNumber(1);
        ::setrlimit(RLIMIT_FSIZE, &limit);
        return done && kep_config_set_int("p", 2, true) == 1;
    };
    EXPECT_EQ(run(write), m_told + "disk I/O error\n");
    EXPECT_EQ(run([] { return isNumber(2); }), "");
}

} // namespace
