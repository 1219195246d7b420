// SPDX-License-Identifier: BSD-3-Clause
#include "ALog.h"
#include "AComponentLog.h"
#include "support/Files.h"
#include "support/Interposed.h"
#include "support/OtherThread.h"
#include "support/Places.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <langinfo.h>
#include <regex>
#include <sys/stat.h>
#include <thread>

#pragma GCC diagnostic ignored "-Wformat" // "%m"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

static std::atomic<std::time_t> s_now = 1794009599; // 2026-11-06 23:59:59 UTC
static char s_timeFormat[32] = "%H:%M:%S";          // of the time locale
static std::string s_timeOfDay = s_timeFormat;      // what that comes down to

// These take the place of the C library's clock and time locale for the log.
INTERPOSED std::time_t time(std::time_t*) noexcept
{
    return s_now;
}

INTERPOSED char* nl_langinfo(nl_item) noexcept
{
    return s_timeFormat;
}

INTERPOSED std::size_t strftime(char* text, std::size_t size, const char* format,
                                const std::tm* fields) noexcept
{
    static const auto s_real = nextDefinition<decltype(::strftime)>("strftime");
    comeBy("strftime");
    std::string whole = format;
    if (const auto position = whole.find("%X"); position != std::string::npos)
        whole.replace(position, 2, s_timeOfDay);
    return s_real(text, size, whole.c_str(), fields);
}

INTERPOSED void tzset() noexcept
{
    static const auto s_real = nextDefinition<decltype(::tzset)>("tzset");
    comeBy("tzset");
    s_real();
}

// One buffer for all threads: the log must not call it.
INTERPOSED std::tm* localtime(const std::time_t*) noexcept
{
    std::abort();
}

namespace {

const std::string kStamp = "11/ 6/2026 23:59:59 ";

/// A log into a file, without stamps, in a scratch folder of its own: there "debug.log" lands.
struct ALogTest : testing::Test {
    ALogTest()
    {
        std::filesystem::current_path(m_dir.path());
        setenv("TZ", "UTC", 1);
        m_log.setShowTimestamp(false);
    }
    ~ALogTest() override
    {
        std::filesystem::current_path("/");
        std::fclose(m_file);
    }
    std::string written() const { return readFile(m_path); }

    const TempDir m_dir;
    const std::string m_path = m_dir.path("given.log");
    FILE* const m_file = std::fopen(m_path.c_str(), "w");
    ALog m_log{"box", m_file};
    va_list m_noArguments{};
};

TEST_F(ALogTest, StampFollowsClockZoneAndLocaleFromLineToLineAndErrnoIsTheCallers)
{
    struct Line {
        const char* stamp;
        int seconds; // to the day's end
        std::string zone;
        const char* timeFormat = "%H:%M:%S";
        const char* timeOfDay = "%H:%M:%S";
    };
    const std::string longName(90, 'N');
    const Line lines[] = {
        {"11/ 6/2026 23:59:59", 0, "UTC"},
        {"11/ 7/2026 00:00:00", 1, "UTC"},
        {"11/ 6/2026 23:59:59", 0, "UTC"},
        // The same names, offset and use of summer time, but other rules.
        {"11/ 6/2026 16:59:59", 0, "ONE7TWO,J60,J300"},
        {"11/ 6/2026 17:59:59", 0, "ONE7TWO,J60,J320"},
        {"11/ 7/2026 05:29:59", 0, longName + "-5:30:00"},
        {"11/ 7/2026 05:02:59", 0, longName + "-5:3"},
        {"11/ 6/2026 23:59:59", 0, "Missing/Zone"}, // the search for its file sets errno
        {"11/ 6/2026 23.59.59", 0, "UTC", "%H.%M.%S", "%H.%M.%S"},
        {"11/ 6/2026 23:59:59 23:59:59 23:59:", 0, "UTC", "%H:%M:%S %H:%M:%S %H:%M:", // longer than kept
         "%H:%M:%S %H:%M:%S %H:%M:"},
        {"11/ 6/2026 11:59:59 PM", 0, "UTC", "%r", "%I:%M:%S %p"},
        {"11/ 6/2026 11.59.59 PM", 0, "UTC", "%r", "%I.%M.%S %p"},
        {"11/ 6/2026 23:59:59", 0, "UTC"}, // and as it was
    };
    m_log.setShowTimestamp(true);
    std::string expected;
    const std::time_t lastSecond = s_now;
    for (const Line& line : lines) {
        s_now = lastSecond + line.seconds;
        std::strcpy(s_timeFormat, line.timeFormat);
        s_timeOfDay = line.timeOfDay;
        setenv("TZ", line.zone.c_str(), 1);
        errno = EDOM;
        m_log.print("%m\n");
        EXPECT_EQ(errno, EDOM);
        expected += line.stamp + (" box -" + std::string(std::strerror(EDOM)) + "\n");
    }
    EXPECT_EQ(written(), expected);
}

TEST_F(ALogTest, LineIsCutAt2047CharactersAndAtAZeroByte)
{
    const std::string longText(3000, 'm');
    m_log.setShowTimestamp(true);
    int length = 0;
    m_log.print("%s%n\n", longText.c_str(), &length);
    EXPECT_EQ(length, 3000); // as printf counts
    m_log.print("a%cb\n", 0);
    EXPECT_EQ(written(), (kStamp + "box -" + longText).substr(0, 2047) + kStamp + "box -a");
}

TEST_F(ALogTest, OpenFailuresDropTheLineAndTheNextLineTriesAgain)
{
    ALog("off").print("no line, no file\n");
    EXPECT_FALSE(std::filesystem::exists("debug.log"));
    EXPECT_EQ(m_log.setOutputFile("missing/own.log"), -1);
    std::filesystem::create_directory("debug.log"); // can't be opened for writing
    m_log.print("dropped\n");
    std::filesystem::remove("debug.log");
    std::ofstream("debug.log") << "of another run";
    const int next = dup(0);
    close(next);
    m_log.print("kept\n"); // opens the file, emptied, as the lowest free descriptor
    EXPECT_EQ(readFile("debug.log"), "box -kept\n");
    EXPECT_EQ(fcntl(next, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC); // no program inherits it
}

TEST_F(ALogTest, NewOutputFileClosesTheLogsOwnStreamAndNoOther)
{
    const int before = openDescriptors();
    ASSERT_EQ(m_log.setOutputFile("night.log"), 0);
    m_log.vprint("buffered\n", m_noArguments);
    std::filesystem::rename("night.log", "yesterday.log");
    ASSERT_EQ(m_log.setOutputFile("night.log"), 0);
    EXPECT_EQ(readFile("yesterday.log"), "box -buffered\n");
    EXPECT_EQ(m_log.setOutputFile("missing/own.log"), -1);
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(ALogTest, ReopenedFileKeepsWhatItHoldsAndAFailureKeepsTheStream)
{
    std::ofstream("kept.log") << "earlier\n";
    std::filesystem::create_symlink("kept.log", "link.log");
    mkfifo("fifo", 0600); // which nobody reads yet
    for (const auto& [path, error] :
         {std::pair{"missing/own.log", ENOENT}, {"link.log", ELOOP}, {"fifo", ENXIO}, {nullptr, EINVAL}}) {
        EXPECT_EQ(m_log.reopenOutputFile(path), -1);
        EXPECT_EQ(errno, error);
    }
    m_log.print(ALog::INFO, "to the old stream\n");
    EXPECT_EQ(written(), "box -to the old stream\n");
    std::fputs("buffered", m_file);
    m_log.setEnabled(false);
    m_log.print("no line, but a flush\n");
    m_log.setEnabled(true);
    EXPECT_EQ(written(), "box -to the old stream\nbuffered");
    const int next = fcntl(1, F_DUPFD, 3);
    close(next);
    close(0);
    EXPECT_EQ(m_log.reopenOutputFile("kept.log"), 0);
    EXPECT_EQ(fcntl(0, F_GETFD), -1); // not taken
    m_log.vprint("buffered\n", m_noArguments);
    EXPECT_EQ(m_log.reopenOutputFile("new.log"), 0);
    EXPECT_EQ(fcntl(next, F_GETFD), FD_CLOEXEC); // which has moved on
    EXPECT_EQ(readFile("kept.log"), "earlier\nbox -buffered\n");
    EXPECT_EQ(std::filesystem::status("new.log").permissions(), std::filesystem::perms{0600});
    open("fifo", O_RDONLY | O_NONBLOCK);
    EXPECT_EQ(m_log.reopenOutputFile("fifo"), 0);
    EXPECT_EQ(fcntl(next, F_GETFL) & O_NONBLOCK, 0); // a slow reader misses nothing
}

TEST_F(ALogTest, EchoedLineAlsoReachesStandardOutputAndAFullDiskStopsNothing)
{
    CapturedStream output(stdout);
    EXPECT_FALSE(m_log.getEchoToConsole());
    m_log.setEchoToConsole(true);
    m_log.print("100%% %s\n", "%d");
    EXPECT_EQ(output.arrived(), "box -100% %d\n"); // flushed
    std::fputs("more ", stdout);
    m_log.flush();
    EXPECT_TRUE(output.arrived().ends_with("more "));
    flockfile(stdout); // as a host does amid a line
    {
        const OtherThread other([this] { m_log.print("late\n"); });
        EXPECT_TRUE(other.isKeptWaiting());
        funlockfile(stdout);
    }
    EXPECT_EQ(m_log.setOutputFile("/dev/full"), 0);
    for (const char* line : {"lost\n", "lost again\n"})
        m_log.print("%s", line);
    EXPECT_EQ(output.text(), "box -100% %d\nmore box -late\nbox -lost\nbox -lost again\n");
    EXPECT_EQ(written(), "box -100% %d\nbox -late\n");
}

TEST_F(ALogTest, LinesOfManyThreadsStayWholeWhileFilesMoveAndAHostHoldsTheStream)
{
    constexpr int kThreads = 8, kLines = 200;
    ALog unnamed(nullptr, nullptr);
    m_log.setShowTimestamp(true);
    const int before = openDescriptors();
    std::vector<std::jthread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kLines; ++i) {
                if (t == 0)
                    flockfile(m_file);
                (i % 2 == 0 ? m_log : unnamed).print("thread %d line %d\n", t, i);
                if (t == 0)
                    funlockfile(m_file);
            }
        });
    for (int night = 0; night < 50; ++night)
        EXPECT_EQ((night == 25 ? m_log : unnamed).reopenOutputFile(std::to_string(night).c_str()), 0);
    threads.clear();                          // waits for them
    EXPECT_EQ(openDescriptors(), before + 2); // one for each log
    std::string lines;
    for (const auto& file : std::filesystem::directory_iterator("."))
        lines += readFile(file.path());
    const std::regex whole(R"(\d\d/[ \d]\d/\d{4} \d\d:\d\d:\d\d (box)? -thread \d line \d+\n)");
    EXPECT_EQ(std::regex_replace(lines, whole, ""), "");
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), kThreads * kLines);
}

TEST_F(ALogTest, StreamsAreFreeWhileALineIsComposedAndItsStampIsOfTheSecondItIsWritten)
{
    const std::time_t before = s_now;
    CapturedStream output(stdout);
    ALog other("other", m_file);
    other.setShowTimestamp(false);
    m_log.setShowTimestamp(true);
    for (ALog* log : {&other, &m_log})
        log->setEchoToConsole(true);
    std::string expected, keptWaiting;
    std::deque<OtherThread> threads;
    for (const char* place : {"tzset", "strftime", "%K"}) {
        setAtPlace(place, [&] {
            ++s_now;
            if (!threads.emplace_back([&] { other.print("at %s\n", place); }).isDone())
                keptWaiting += place;
        });
        ++s_now;
        m_log.print("%s%K\n", place);
        expected += "other -at " + (place + ("\n11/ 7/2026 00:00:0" + std::to_string(s_now - before - 1))) +
                    " box -" + place + "\n";
    }
    s_now = before;
    EXPECT_EQ(output.text(), expected);
    EXPECT_EQ(written(), expected);
    EXPECT_EQ(keptWaiting, "");
}

struct AComponentLogTest : ALogTest {};

// Hosts compile them in.
static_assert(ALog::INFO == 1 && ALog::WARNING == 2 && ALog::ERROR == 3 && ALog::TRACE == 4);
static_assert(AComponentLog::INFO == 1 && AComponentLog::WARNING == 2 && AComponentLog::ERROR == 3 &&
              AComponentLog::TRACE == 4);

void useEveryOperation(AComponentLog& log)
{
    log.print("m %d\n", 1);
    log.print(AComponentLog::ERROR, "m %d\n", 1);
    log.logInfo("m %d\n", 1);
    log.logWarning("m %d\n", 1);
    log.logError("m %d\n", 1);
    log.logTrace("m %d\n", 1);
    va_list none{};
    log.vprint("m 1\n", none);
    log.vprint(AComponentLog::TRACE, "m 1\n", none);
}

TEST_F(AComponentLogTest, OperationsWriteTheBaseLogsLineUnlessThereIsNoneOrTheyAreSwitchedOff)
{
    AComponentLog component(nullptr);
    useEveryOperation(component);
    component.flush();
    component.setBaseLog(m_log);
    component.setEnabled(false);
    EXPECT_FALSE(component.getEnabled());
    useEveryOperation(component);
    component.setEnabled(true);
    useEveryOperation(component);
    EXPECT_EQ(written(), ""); // left in the buffer
    component.setEnabled(false);
    component.flush();
    EXPECT_EQ(written(), "");
    component.setEnabled(true);
    component.flush();
    std::string expected;
    for (int i = 0; i < 8; ++i)
        expected += "box -m 1\n";
    EXPECT_EQ(written(), expected);
}

TEST_F(AComponentLogTest, BaseLogIsHandedDownToWhatIsStillListed)
{
    ALog other("other", m_file);
    AComponentLog root("root"), child("child", other), grandchild("grandchild");
    root.removeChildLog(child); // not listed yet
    child.addChildLog(grandchild);
    EXPECT_EQ(grandchild.getBaseLog(), &other);
    root.addChildLog(child); // a parent without base log takes nothing away
    root.addChildLog(child);
    EXPECT_EQ(child.getBaseLog(), &other);
    root.removeChildLog(child);
    root.setBaseLog(m_log);
    EXPECT_EQ(child.getBaseLog(), &m_log); // still listed once
    EXPECT_EQ(grandchild.getParentLog(), &m_log);
    root.removeChildLog(child);
    root.setBaseLog(other);
    EXPECT_EQ(child.getBaseLog(), &m_log);
}

TEST_F(AComponentLogTest, ChildThatWouldCloseACycleIsRefused)
{
    AComponentLog top("top"), middle("middle"), bottom("bottom");
    top.addChildLog(middle);
    middle.addChildLog(bottom);
    top.addChildLog(top);
    bottom.setBaseLog(m_log);
    bottom.addChildLog(top);
    EXPECT_EQ(top.getBaseLog(), nullptr); // no effect at all
    top.setBaseLog(m_log);                // would never return
    EXPECT_EQ(middle.getBaseLog(), &m_log);
}

} // namespace
