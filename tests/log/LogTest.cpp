#include "AComponentLog.h"
#include "ALog.h"
#include "support/Files.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <regex>
#include <thread>

static std::atomic<std::time_t> s_fakeTime = 0; // 0: the real clock

// Takes the place of the C library's clock for the log.
extern "C" __attribute__((visibility("default"))) std::time_t time(std::time_t* result) noexcept
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const std::time_t seconds = s_fakeTime != 0 ? s_fakeTime.load() : now.tv_sec;
    if (result != nullptr)
        *result = seconds;
    return seconds;
}

// One buffer for all threads: the log must not call it.
extern "C" __attribute__((visibility("default"))) std::tm* localtime(const std::time_t*) noexcept
{
    std::abort();
}

namespace {

constexpr std::time_t kSixthOfNovember = 1794009599; // 2026-11-06 23:59:59 UTC
constexpr std::size_t kStampLength = 20;

/// A log into a file, without stamps, in a scratch folder of its own: there "debug.log" lands.
struct LogTest : testing::Test {
    LogTest()
    {
        std::filesystem::current_path(m_dir.path());
        setenv("TZ", "UTC", 1);
        m_log.setShowTimestamp(false);
    }
    ~LogTest() override
    {
        s_fakeTime = 0;
        std::filesystem::current_path("/");
        std::fclose(m_file);
    }
    std::string written() const { return readFile(m_path); }

    const TempDir m_dir;
    const std::string m_path = m_dir.path("given.log");
    FILE* const m_file = std::fopen(m_path.c_str(), "w");
    ALog m_log{"box", m_file};
};

TEST_F(LogTest, LineIsNameHyphenAndMessageAsPrintfFormatsItAtEveryLevel)
{
    EXPECT_TRUE(!m_log.getEchoToConsole() && !m_log.getShowTimestamp() && m_log.getEnabled());
    const char* volatile absent = nullptr;
    m_log.print("%d|%i|%u|%x|%s|%%\n", -2147483647 - 1, 0, 4294967295U, 0xBEEFU, "text");
    m_log.print(ALog::INFO, "%s|%5d|%-4s|%ld|%.2f|%c\n", absent, 42, "ab", -5L, 1.5, 'c');
    ALog unnamed(nullptr, m_file);
    unnamed.setShowTimestamp(false);
    unnamed.print("open");
    unnamed.print(ALog::ERROR, " line\n");
    EXPECT_EQ(written(), "box --2147483648|0|4294967295|beef|text|%\n"
                         "box -(null)|   42|ab  |-5|1.50|c\n"
                         " -open - line\n"); // flushed by print
}

TEST_F(LogTest, StampFollowsClockAndZoneFromLineToLine)
{
    m_log.setShowTimestamp(true);
    const std::string longName(90, 'N');
    const std::pair<int, std::string> lines[] = {
        {0, "UTC"}, // seconds to the day's end, zone: none means that TZ is not set
        {1, "UTC"},
        {0, "UTC"},
        // The same names, offset and use of summer time, but other rules.
        {0, "ONE7TWO,J60,J300"},
        {0, "ONE7TWO,J60,J320"},
        {0, longName + "-5:30:00"},
        {0, longName + "-5:3"},
        {0, ""},
    };
    std::string expected;
    for (const auto& [seconds, zone] : lines) {
        s_fakeTime = kSixthOfNovember + seconds;
        zone.empty() ? unsetenv("TZ") : setenv("TZ", zone.c_str(), 1);
        m_log.print("x\n");
        const std::time_t now = s_fakeTime;
        char stamp[64];
        std::tm fields{};
        tzset();
        std::strftime(stamp, sizeof stamp, "%m/%e/%Y %H:%M:%S ", localtime_r(&now, &fields));
        expected += std::string(stamp) + "box -x\n";
    }
    EXPECT_TRUE(expected.starts_with("11/ 6/2026 23:59:59 box -x\n11/ 7/2026 00:00:00 "));
    EXPECT_EQ(written(), expected);
}

TEST_F(LogTest, LineIsCutAt2047CharactersWithStampAndNameCounted)
{
    const std::string longText(3000, 'm');
    for (const std::size_t nameLength : {3U, 2046U, 2500U}) {
        const std::string name(nameLength, 'n');
        ALog log(name.c_str(), nullptr);
        ASSERT_EQ(log.setOutputFile("cut.log"), 0);
        log.print("%s\n", longText.c_str());
        EXPECT_EQ(readFile("cut.log").substr(kStampLength),
                  (name + " -" + longText).substr(0, 2047 - kStampLength));
    }
}

TEST_F(LogTest, SwitchedOffLogWritesNothingAndOpensNothing)
{
    ALog log("off");
    EXPECT_TRUE(!log.getEnabled() && log.getShowTimestamp());
    log.print("x\n");
    EXPECT_FALSE(std::filesystem::exists("debug.log"));
    log.setEnabled(true);
    log.print("y\n");
    EXPECT_EQ(readFile("debug.log").substr(kStampLength), "off -y\n");
}

TEST_F(LogTest, OpenFailuresDropTheLineAndTheNextLineTriesAgain)
{
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
    EXPECT_EQ(m_log.setOutputFile(nullptr), -1);
}

TEST_F(LogTest, MovingTheFileEachNightLeaksNoDescriptorAndLosesNoLine)
{
    ASSERT_EQ(m_log.setOutputFile("night.log"), 0);
    std::fputs("still the caller's\n", m_file); // not closed by the move
    std::fflush(m_file);
    EXPECT_EQ(written(), "still the caller's\n");
    const int before = openDescriptors();
    {
        ALog lazy("lazy", nullptr);
        lazy.print("opens the default file\n");
        EXPECT_EQ(lazy.setOutputFile("missing/own.log"), -1);
    }
    for (int night = 0; night < 20; ++night) {
        va_list none{};
        m_log.vprint("buffered\n", none);
        std::filesystem::rename("night.log", "yesterday.log");
        ASSERT_EQ(m_log.setOutputFile("night.log"), 0);
        EXPECT_EQ(readFile("yesterday.log"), "box -buffered\n");
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(LogTest, EchoedLineAlsoReachesStandardOutputAndAFullDiskStopsNothing)
{
    CapturedStream output(stdout);
    m_log.setEchoToConsole(true);
    m_log.print("100%% %s\n", "%d");
    EXPECT_EQ(output.arrived(), "box -100% %d\n"); // flushed
    std::fputs("more ", stdout);
    m_log.flush();
    EXPECT_TRUE(output.arrived().ends_with("more "));
    EXPECT_EQ(m_log.setOutputFile("/dev/full"), 0);
    for (const char* line : {"lost\n", "lost again\n"})
        m_log.print("%s", line);
    EXPECT_EQ(output.text(), "box -100% %d\nmore box -lost\nbox -lost again\n");
    EXPECT_EQ(written(), "box -100% %d\n");
}

TEST_F(LogTest, LinesOfManyThreadsAndTwoLogsStayWhole)
{
    constexpr int kThreads = 8, kLines = 200;
    ALog second("two", nullptr);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kLines; ++i) {
                ALog& log = i % 2 == 0 ? m_log : second;
                log.setShowTimestamp(true);
                log.print("thread %d line %d\n", t, i);
            }
        });
    for (auto& thread : threads)
        thread.join();
    const std::string lines = written() + readFile("debug.log");
    const std::regex whole(R"(\d\d/[ \d]\d/\d{4} \d\d:\d\d:\d\d (box|two) -thread \d line \d+\n)");
    EXPECT_EQ(std::regex_replace(lines, whole, ""), "");
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), kThreads * kLines);
}

struct ComponentLogTest : LogTest {};

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

TEST_F(ComponentLogTest, OperationsWriteTheBaseLogsLineUnlessThereIsNoneOrTheyAreSwitchedOff)
{
    AComponentLog component(nullptr), other("other", m_log);
    useEveryOperation(component);
    component.flush();
    component.setBaseLog(m_log);
    component.setEnabled(false);
    EXPECT_FALSE(component.getEnabled());
    useEveryOperation(component);
    m_log.flush();
    EXPECT_EQ(written(), "");
    other.print("buffered\n");
    component.flush();
    EXPECT_EQ(written(), "");
    component.setEnabled(true);
    useEveryOperation(component);
    EXPECT_EQ(written(), ""); // left in the buffer
    component.flush();
    std::string expected = "box -buffered\n";
    for (int i = 0; i < 8; ++i)
        expected += "box -m 1\n";
    EXPECT_EQ(written(), expected);
}

TEST_F(ComponentLogTest, BaseLogIsHandedDownToWhatIsStillListed)
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

TEST_F(ComponentLogTest, ChildThatWouldCloseACycleIsRefused)
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
