// SPDX-License-Identifier: BSD-3-Clause
#include "ATrace.h"
#include "support/Files.h"
#include "support/Interposed.h"
#include "support/OtherThread.h"
#include "support/Places.h"

#include <cerrno>
#include <deque>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <thread>

#pragma GCC diagnostic ignored "-Wformat"            // "%m"
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // such formats take the other form

static timeval s_now = {1700000000, 123456};

// The library's clock.
INTERPOSED int gettimeofday(timeval* now, void*) noexcept
{
    *now = s_now;
    return 0;
}

namespace {

const std::string kStamp = "2023/11/15 03:43:20_123 ";
const std::string kStartLine = kStamp + "ATrace::Init: Trace Starting\n";

struct ATraceTest : testing::Test {
    ATraceTest() { ::setenv("TZ", "EAST-5:30", 1); }
    ~ATraceTest() override { gTrace = nullptr; }

    TempDir m_dir;
    const std::string m_path = m_dir.path("trace"), m_other = m_dir.path("other");
    ATrace m_trace;
};

TEST_F(ATraceTest, LinesAreFilteredAndStampedInLocalTime)
{
    CapturedStream console(stdout);
    m_trace.Init(3, nullptr);
    EXPECT_EQ(console.text(), "Trace File Name Missing\n");
    m_trace.TraceLog(0, "still disabled\n");
    std::string expected;
    char plain[] = "%i of %s\n"; // the form that is not a template
    for (const int threshold : {3, 0, -2}) {
        m_trace.Init(threshold, m_path.c_str());
        for (int level = -4; level <= 5; ++level) {
            m_trace.TraceLog(level, "%i of %s\n", level, "many");
            m_trace.TraceLog(level, plain, level, "all");
            if (level > threshold && level != 0)
                continue;
            for (const char* form : {" of many\n", " of all\n"})
                expected += kStamp + std::to_string(level) + form;
        }
    }
    for (const int microseconds : {999999, 500, 123456}) {
        s_now.tv_usec = microseconds;
        m_trace.TraceLog(0, "\n");
    }
    EXPECT_EQ(readFile(m_path),
              expected + "2023/11/15 03:43:20_999 \n2023/11/15 03:43:20_000 \n" + kStamp + "\n");
}

TEST_F(ATraceTest, FileIsEmptiedAtTheFirstOpeningOfAnObjectOnly)
{
    std::ofstream(m_path) << "old\n";
    std::ofstream(m_other) << "kept\n";
    m_trace.Init(3, std::string(m_path).data());
    EXPECT_EQ(readFile(m_path), "old\n"); // no start line without gTrace
    gTrace = &m_trace;
    ATrace early;
    EXPECT_EQ(early.Reopen(m_other.c_str()), 0);
    early.TraceLog(0, "before Init\n");
    early.Init(3, m_other.c_str()); // its start line goes through gTrace
    early.Close();
    early.TraceLog(0, "after a reopening\n");
    m_trace.Close();
    m_trace.TraceLog(0, std::string("%s\n").data(), "appended");
    m_trace.Init(3, m_other.c_str()); // the open file stays the destination
    m_trace.Close();
    m_trace.TraceLog(0, "last\n");
    EXPECT_EQ(m_trace.Reopen((m_path + "/missing").c_str()), -1);
    EXPECT_EQ(errno, ENOTDIR);
    ::setenv("TZ", "Missing/Zone", 1); // the search for its file sets errno
    m_trace.TraceLog(3, "%m\n");       // the caller's error, and the old file
    ::setenv("TZ", "EAST-5:30", 1);
    EXPECT_EQ(m_trace.Reopen(m_path.c_str()), 0);
    m_trace.Close();
    m_trace.TraceLog(3, "reopened\n");
    EXPECT_EQ(readFile(m_path), kStartLine + kStamp + "appended\n" + kStartLine + kStamp + "reopened\n");
    EXPECT_EQ(readFile(m_other), "kept\n" + kStamp + "after a reopening\n" + kStamp +
                                     "last\n2023/11/14 22:13:20_123 Not a directory\n");
}

TEST_F(ATraceTest, MessagesAreWholeWhateverTheirFormAndLength)
{
    m_trace.Init(0, m_path.c_str());
    std::string expected;
    for (const std::size_t length : {0, 130, 131, 132, 133, 5000}) {
        const std::string text(length, 'x');
        m_trace.TraceLog(0, "%s|%u\n", text.c_str(), 7U);
        m_trace.TraceLog(0, "%s|%1u\n", text.c_str(), 7U);
        expected += kStamp + text + "|7\n" + kStamp + text + "|7\n";
    }
    m_trace.TraceLog(0, static_cast<char*>(nullptr));
    EXPECT_EQ(readFile(m_path), expected + kStamp);
}

TEST_F(ATraceTest, AnotherThreadsLineGetsThroughWhileOneIsComposedAndNoStampIsOlderThanTheOneBefore)
{
    m_trace.Init(0, m_path.c_str());
    const timeval before = s_now;
    std::string expected;
    bool gotThrough = true;
    std::deque<OtherThread> threads;
    for (const auto& [now, stamp] :
         {std::pair{timeval{before.tv_sec, 456789}, "2023/11/15 03:43:20_456 "}, // only later
          {timeval{before.tv_sec + 1, 0}, "2023/11/15 03:43:21_000 "}}) {
        const timeval later = now;
        setAtPlace("%K", [&] {
            s_now = later;
            threads.emplace_back([this] { m_trace.TraceLog(0, "between\n"); });
            gotThrough = threads.back().isDone() && gotThrough;
        });
        m_trace.TraceLog(0, "begun before%K\n");
        expected += stamp + ("between\n" + std::string(stamp)) + "begun before\n";
    }
    s_now = before;
    EXPECT_TRUE(gotThrough);
    EXPECT_EQ(readFile(m_path), expected);
}

TEST_F(ATraceTest, LinesThatCannotBeWrittenAreDropped)
{
    m_trace.Init(0, "/dev/full");
    errno = 0;
    m_trace.TraceLog(0, "%010000i\n", 1);
    EXPECT_EQ(errno, 0);
    ATrace late;
    mkfifo(m_other.c_str(), 0600);
    late.Init(0, m_other.c_str());
    late.TraceLog(0, "lost\n"); // as nobody reads it; and nothing is emptied any more
    std::filesystem::remove(m_other);
    std::ofstream(m_other) << "kept\n";
    late.TraceLog(0, "written\n");
    EXPECT_EQ(readFile(m_other), "kept\n" + kStamp + "written\n");
}

TEST_F(ATraceTest, LinesStayWholeWhileTheFileMoves)
{
    m_trace.Init(1, m_path.c_str());
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([this] {
            for (int line = 0; line < 500; ++line)
                m_trace.TraceLog(1, "%s line\n", "whole");
        });
    for (int round = 0; round < 200; ++round) {
        m_trace.Close();
        if (round % 2 == 0)
            m_trace.Init(1, m_other.c_str());
        else
            EXPECT_EQ(m_trace.Reopen(m_path.c_str()), 0);
    }
    threads.clear(); // waits for them
    std::string expected;
    for (int line = 0; line < 8 * 500; ++line)
        expected += kStamp + "whole line\n";
    EXPECT_EQ(readFile(m_path) + readFile(m_other), expected);
}

} // namespace
