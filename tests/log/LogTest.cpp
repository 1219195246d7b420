#include "ALog.h"
#include "support/Files.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <regex>
#include <set>
#include <thread>

namespace {

std::atomic<std::time_t> s_fakeTime = 0; // 0: the real clock

} // namespace

// Takes the place of the C library's clock for the log.
extern "C" __attribute__((visibility("default"))) std::time_t time(std::time_t* result) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const std::time_t seconds = s_fakeTime != 0 ? s_fakeTime.load() : now.tv_sec;
    if (result != nullptr) *result = seconds;
    return seconds;
}

// One buffer for all threads: the log must not call it.
extern "C" __attribute__((visibility("default"))) std::tm* localtime(const std::time_t*) noexcept { std::abort(); }

namespace {

constexpr std::time_t kSixthOfNovember = 1794009599; // 2026-11-06 23:59:59 UTC
constexpr std::size_t kStampLength = 20;

class LogTest : public testing::Test {
protected:
    void SetUp() override {
        m_oldFolder = std::filesystem::current_path();
        std::filesystem::current_path(m_dir.path()); // where "debug.log" lands
        setZone("UTC");
    }
    void TearDown() override {
        s_fakeTime = 0;
        std::filesystem::current_path(m_oldFolder);
        if (m_file != nullptr) std::fclose(m_file);
    }

    static void setZone(const char* zone) {
        setenv("TZ", zone, 1);
        tzset();
    }
    FILE* stream() { return m_file = m_file != nullptr ? m_file : std::fopen(path().c_str(), "w"); }
    std::string path() const { return m_dir.path("given.log"); }
    std::string written() const { return readFile(path()); }
    static bool exists(const char* name) { return std::filesystem::exists(name); }

    TempDir m_dir;
    FILE* m_file = nullptr;
    std::filesystem::path m_oldFolder;
};

TEST_F(LogTest, LineIsNameHyphenMessageAndLevelsChangeNothing) {
    ALog log("box", stream());
    log.setShowTimestamp(false);
    log.print("a %d\n", 1);
    log.print(ALog::INFO, "a %d\n", 1);
    log.print(ALog::TRACE, "a %d\n", 1);
    EXPECT_EQ(written(), "box -a 1\nbox -a 1\nbox -a 1\n"); // flushed by print
    ALog unnamed(nullptr, stream());
    unnamed.setShowTimestamp(false);
    unnamed.print("open");
    unnamed.print(" line\n");
    EXPECT_TRUE(written().ends_with("\n -open - line\n")) << written();
}

TEST_F(LogTest, MessageIsFormattedAsPrintfDoes) {
    ALog log("", stream());
    log.setShowTimestamp(false);
    EXPECT_TRUE(!log.getEchoToConsole() && !log.getShowTimestamp() && log.getEnabled());
    const char* volatile absent = nullptr;
    log.print("%d|%i|%u|%x|%s|%%\n", -2147483647 - 1, 0, 4294967295U, 0xBEEFU, "text");
    log.print("%s|%5d|%-4s|%ld|%.2f|%c|%p\n", absent, 42, "ab", -5L, 1.5, 'c', static_cast<void*>(nullptr));
    log.print("%s and then %03d\n", "plain first", 7);
    EXPECT_EQ(written(), " --2147483648|0|4294967295|beef|text|%\n"
                         " -(null)|   42|ab  |-5|1.50|c|(nil)\n"
                         " -plain first and then 007\n");
}

TEST_F(LogTest, StampFollowsClockAndZoneFromLineToLine) {
    ALog log("box", stream());
    const struct {
        std::time_t time;
        const char* zone;
        const char* stamp;
    } lines[] = {
        {kSixthOfNovember, "UTC", "11/ 6/2026 23:59:59 "},
        {kSixthOfNovember + 1, "UTC", "11/ 7/2026 00:00:00 "},
        {kSixthOfNovember, "UTC", "11/ 6/2026 23:59:59 "},
        {kSixthOfNovember, "EAST-5", "11/ 7/2026 04:59:59 "},
        {kSixthOfNovember, "WEST5", "11/ 6/2026 18:59:59 "},
        {kSixthOfNovember, "UTC", "11/ 6/2026 23:59:59 "},
        {kSixthOfNovember, "OTHER0", "11/ 6/2026 23:59:59 "},
        // The same names, offset and use of summer time, but other rules.
        {kSixthOfNovember, "ONE7TWO,J60,J300", "11/ 6/2026 16:59:59 "},
        {kSixthOfNovember, "ONE7TWO,J60,J320", "11/ 6/2026 17:59:59 "},
    };
    std::string expected;
    for (const auto& line : lines) {
        s_fakeTime = line.time;
        setZone(line.zone);
        log.print("x\n");
        expected += std::string(line.stamp) + "box -x\n";
    }
    setenv("TZ", "EAST-5", 1); // the host calls no tzset: the next second is soon enough
    s_fakeTime = kSixthOfNovember + 1;
    log.print("x\n");
    EXPECT_EQ(written(), expected + "11/ 7/2026 05:00:00 box -x\n");
}

TEST_F(LogTest, LineIsCutAt2047CharactersWithStampAndNameCounted) {
    const std::string longText(3000, 'm');
    for (const bool stamp : {true, false}) {
        for (const std::size_t nameLength : {3U, 2046U, 2500U}) {
            std::fclose(stream());
            m_file = nullptr;
            const std::string name(nameLength, 'n');
            ALog log(name.c_str(), stream());
            log.setShowTimestamp(stamp);
            log.print("%s\n", longText.c_str());
            const std::string line = written();
            ASSERT_EQ(line.size(), 2047U);
            const std::string body = line.substr(stamp ? kStampLength : 0);
            EXPECT_EQ(body, (name + " -" + longText).substr(0, body.size()));
        }
    }
}

TEST_F(LogTest, SwitchedOffLogWritesNothingAndOpensNothing) {
    ALog log("box");
    EXPECT_FALSE(log.getEnabled());
    log.print("x\n");
    EXPECT_FALSE(exists("debug.log"));
    ASSERT_EQ(log.setOutputFile("own.log"), 0);
    log.print("x\n");
    EXPECT_EQ(readFile("own.log"), "");
    log.setEnabled(true);
    log.setShowTimestamp(false);
    log.print("x\n");
    EXPECT_EQ(readFile("own.log"), "box -x\n");
}

TEST_F(LogTest, OpenFailuresDropTheLineAndTheNextLineTriesAgain) {
    ALog log("box", stream());
    log.setShowTimestamp(false);
    EXPECT_EQ(log.setOutputFile("missing/own.log"), -1);
    std::filesystem::create_directory("debug.log"); // can't be opened for writing
    log.print("dropped\n");
    std::filesystem::remove("debug.log");
    std::ofstream("debug.log") << "of another run";
    const int next = dup(0);
    close(next);
    log.print("kept\n"); // opens the file, emptied, as the lowest free descriptor
    EXPECT_EQ(readFile("debug.log"), "box -kept\n");
    EXPECT_EQ(fcntl(next, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC); // no program inherits it
    EXPECT_EQ(log.setOutputFile(nullptr), -1);
}

TEST_F(LogTest, MovingTheFileEachNightLeaksNoDescriptorAndLosesNoLine) {
    ALog log("box", stream());
    log.setShowTimestamp(false);
    ASSERT_EQ(log.setOutputFile("night.log"), 0);
    std::fputs("still the caller's\n", stream()); // not closed by the move
    std::fflush(stream());
    EXPECT_EQ(written(), "still the caller's\n");
    const int before = openDescriptors();
    {
        ALog lazy("lazy", nullptr);
        lazy.print("opens the default file\n");
        EXPECT_EQ(lazy.setOutputFile("missing/own.log"), -1);
    }
    for (int night = 0; night < 20; ++night) {
        va_list none{};
        log.vprint("buffered\n", none);
        std::filesystem::rename("night.log", "yesterday.log");
        ASSERT_EQ(log.setOutputFile("night.log"), 0);
        EXPECT_EQ(readFile("yesterday.log"), "box -buffered\n");
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(LogTest, EchoedLineAlsoReachesStandardOutput) {
    CapturedStream output(stdout);
    ALog log("box", stream());
    log.setShowTimestamp(false);
    log.setEchoToConsole(true);
    log.print("100%% %s\n", "%d");
    EXPECT_EQ(output.arrived(), "box -100% %d\n"); // flushed
    std::fputs("more ", stdout);
    log.flush();
    EXPECT_TRUE(output.arrived().ends_with("more "));
    ALog console("out", stdout);
    console.setShowTimestamp(false);
    console.setEchoToConsole(true);
    console.print("twice\n");
    EXPECT_EQ(output.text(), "box -100% %d\nmore out -twice\nout -twice\n");
    EXPECT_EQ(written(), "box -100% %d\n");
}

TEST_F(LogTest, FullDiskStopsNothing) {
    FILE* full = std::fopen("/dev/full", "w");
    ALog log("box", full);
    log.setShowTimestamp(false);
    log.setEchoToConsole(true);
    CapturedStream output(stdout);
    for (int i = 0; i < 100; ++i) log.print("%d\n", i);
    log.flush();
    EXPECT_TRUE(output.text().ends_with("box -98\nbox -99\n"));
    std::fclose(full);
}

TEST_F(LogTest, LinesOfManyThreadsAndTwoLogsStayWhole) {
    constexpr int kThreads = 8;
    constexpr int kLines = 200;
    ALog first("first", stream());
    ALog second("second", nullptr);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kLines; ++i) {
                ALog& log = i % 2 == 0 ? first : second;
                log.setShowTimestamp(true);
                log.print("thread %d line %d\n", t, i);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    const std::regex whole(R"(\d\d/[ \d]\d/\d{4} \d\d:\d\d:\d\d (first|second) -thread \d line \d+)");
    std::set<std::string> lines;
    for (const std::string& file : {path(), std::string("debug.log")}) {
        std::ifstream stream(file);
        for (std::string line; std::getline(stream, line);) {
            EXPECT_TRUE(std::regex_match(line, whole)) << line;
            lines.insert(line.substr(kStampLength));
        }
    }
    EXPECT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kLines));
}

} // namespace
