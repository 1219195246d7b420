#include "ALog.h"
#include "ATrace.h"
#include "faults/Walk.h"
#include "support/Files.h"

#include <gtest/gtest.h>
#include <regex>

namespace {

struct Lines;
using Act = void (*)(Lines& lines);
constexpr Act kNothing = [](Lines&) {};

enum Trait : unsigned {
    CanFail = 1,
    IsLine = 2,  ///< A cancellation may act where it is written.
    IsShared = 4 ///< Other threads may use the objects meanwhile.
};

/// What is walked with the objects, and what stands in the log, in the trace and on standard output then.
struct Row {
    const char* name;
    Act act;
    std::string undisturbed;
    Act approach = kNothing;
    std::map<std::string, std::string> failures = {};
    unsigned traits = CanFail | IsLine | IsShared;
};

struct Lines : Road {
    explicit Lines(const Row& row) : m_row(row)
    {
        for (ALog* log : {&m_log, &m_other}) {
            log->setOutputFile((log == &m_log ? m_path : m_folder.path("other")).c_str());
            log->setEnabled(true);
        }
        m_trace.Init(1, m_tracePath.c_str());
        m_trace.TraceLog(0, "first\n");
    }
    ~Lines() override
    {
        for (const ALog* log : {&m_log, &m_other}) { // which leave their streams open
            if (log->m_file != nullptr)
                std::fclose(log->m_file);
        }
    }

    void approach() override { m_row.approach(*this); }
    void walk() override { m_row.act(*this); }
    std::string arrive() override
    {
        m_log.print("next\n");
        m_trace.TraceLog(0, "next\n");
        static const std::regex s_noise("(log -)?other   1.0\n|[0-9]+/[0-9 ]+/[0-9]+ [0-9:_]+ ");
        const std::string lines = readFile(m_path) + readFile(m_tracePath);
        return std::regex_replace(lines + m_output.text(), s_noise, "");
    }
    std::vector<Intrusion> intrusions() override
    {
        const auto print = [this] {
            m_log.print("other %5.1f\n", 1.0);
            m_trace.TraceLog(0, "other %5.1f\n", 1.0);
        };
        const auto change = [this] {
            m_log.setShowTimestamp(m_log.getShowTimestamp());
            m_log.setEchoToConsole(m_log.getEchoToConsole());
            m_log.setEnabled(m_log.getEnabled());
        };
        const auto reopen = [this] {
            EXPECT_EQ(m_log.reopenOutputFile(m_path.c_str()), 0);
            EXPECT_EQ(m_trace.Reopen(m_tracePath.c_str()), 0);
        };
        std::vector<Intrusion> all = {{"another log",
                                       {[this] { m_other.print("%5.1f\n", 1.0); }},
                                       {"fputs_unlocked", "fwrite_unlocked", "fflush_unlocked"}},
                                      {"settings", {change}, {""}}};
        if ((m_row.traits & IsShared) != 0)
            all.insert(all.end(), {{"the same log", {print}}, {"reopening", {reopen}}});
        return all;
    }
    std::vector<FILE*> streams() override { return {m_log.m_file, m_other.m_file, m_trace.m_file}; }
    std::vector<Monitor*> monitors() override
    {
        return {&m_log.m_monitor, &m_other.m_monitor, &m_trace.m_monitor};
    }

    const Row& m_row;
    const TempDir m_folder;
    const std::string m_path = m_folder.path("log"), m_tracePath = m_folder.path("trace");
    CapturedStream m_output{stdout};
    ALog m_log{"log"}, m_other{"other"};
    ATrace m_trace;
    int m_count = 0;
};

void printPlain(Lines& lines)
{
    lines.m_log.print("plain %d\n", 7);
}

void tracePlain(Lines& lines)
{
    lines.m_trace.TraceLog(0, "plain %d\n", 7);
}

/// The C library opens a file to see that nobody can have written this format.
void printCount(Lines& lines)
{
    lines.m_log.print("seven %n\n", &lines.m_count);
}

void traceCount(Lines& lines)
{
    lines.m_trace.TraceLog(0, "seven %n\n", &lines.m_count);
}

const Row s_rows[] = {
    {"plain", printPlain, "log -plain 7\nlog -next\nfirst\nnext\n"},
    {"plain, in the same second", printPlain, "log -plain 7\nlog -plain 7\nlog -next\nfirst\nnext\n",
     printPlain},
    {"formatted", [](Lines& lines) { lines.m_log.print("%5.1f\n", 1.5); },
     "log -  1.5\nlog -next\nfirst\nnext\n"},
    {"counted", printCount, "log -seven \nlog -next\nfirst\nnext\n", kNothing, {}, IsLine | IsShared},
    {"echoed", [](Lines& lines) { lines.m_log.print("echo %5.1f\n", 1.5); },
     "log -echo   1.5\nlog -next\nfirst\nnext\nlog -echo   1.5\nlog -next\n",
     [](Lines& lines) { lines.m_log.setEchoToConsole(true); }},
    {"traced", tracePlain, "log -next\nfirst\nplain 7\nnext\n"},
    {"traced, in the same second", tracePlain, "log -next\nfirst\nplain 7\nplain 7\nnext\n", tracePlain},
    {"traced, formatted", [](Lines& lines) { lines.m_trace.TraceLog(0, "%5.1f\n", 1.5); },
     "log -next\nfirst\n  1.5\nnext\n"},
    {"traced, counted", traceCount, "log -next\nfirst\nseven \nnext\n", kNothing, {}, IsLine | IsShared},
    {"set",
     [](Lines& lines) { lines.m_log.setOutputFile(lines.m_path.c_str()); },
     "log -next\nfirst\nnext\n",
     printPlain,
     {{"open", "log -plain 7\nfirst\nnext\n"}, {"malloc", "first\nnext\n"}, {"fdopen", "first\nnext\n"}}, CanFail},
    {"reopened",
     [](Lines& lines) { lines.m_log.reopenOutputFile(lines.m_path.c_str()); },
     "log -plain 7\nlog -next\nfirst\nnext\n",
     [](Lines& lines) {
         // What is buffered is written before the file changes.
         [](ALog& log, const char* format, ...) {
             va_list args;
             va_start(args, format);
             log.vprint(format, args);
             va_end(args);
         }(lines.m_log, "plain 7\n");
     }, {}, CanFail | IsShared},
    {"retraced",
     [](Lines& lines) {
         lines.m_trace.Reopen(lines.m_tracePath.c_str());
         lines.m_trace.Close();
     },
     "log -next\nfirst\nnext\n", kNothing, {}, CanFail | IsShared},
};

struct LogWalkTest : testing::TestWithParam<Row> {};

TEST_P(LogWalkTest, NothingThatHappensToALineStopsTheNext)
{
    const Row& row = GetParam();
    Walk walk{row.name, [&] { return std::make_unique<Lines>(row); }, row.undisturbed, row.failures};
    walk.canFail = (row.traits & CanFail) != 0;
    if ((row.traits & IsLine) != 0)
        walk.cancellations = {{"fflush_unlocked", row.undisturbed}};
    walkEachCall(walk);
}

INSTANTIATE_TEST_SUITE_P(All, LogWalkTest, testing::ValuesIn(s_rows));

} // namespace
