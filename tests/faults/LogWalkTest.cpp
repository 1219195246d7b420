// SPDX-License-Identifier: BSD-3-Clause
#include "ALog.h"
#include "ATrace.h"
#include "faults/Walk.h"
#include "support/Files.h"

#include <gtest/gtest.h>
#include <regex>

namespace {

struct Lines;
using Act = void (*)(Lines& lines);

enum Trait : unsigned {
    CanFail = 1,
    IsLine = 2,   ///< A cancellation may act where it is written.
    IsShared = 4, ///< Other threads may use the objects meanwhile.
    IsFirst = 8   ///< No file is open yet.
};

/// What is walked with a log and a trace, and what stands in both then, and on standard output.
struct Row {
    const char* name;
    Act act;
    std::string undisturbed;
    Act approach = [](Lines&) {};
    unsigned traits = CanFail | IsLine | IsShared;
    std::map<std::string, std::string> failures = {};
};

struct Lines : Road {
    explicit Lines(const Row& row) : m_row(row)
    {
        std::filesystem::current_path(m_folder.path());
        if ((row.traits & IsFirst) == 0)
            m_log.setOutputFile(m_path.c_str());
        m_other.setOutputFile(m_folder.path("other").c_str());
        m_log.setEnabled(true);
        m_other.setEnabled(true);
        m_trace.Init(1, m_tracePath.c_str());
        if ((row.traits & IsFirst) == 0)
            m_trace.TraceLog(0, "opened\n");
    }
    ~Lines() override
    {
        for (const ALog* log : {&m_log, &m_other}) { // which leave their streams open
            if (log->m_file != nullptr)
                std::fclose(log->m_file);
        }
        std::filesystem::current_path("/");
    }

    void approach() override { m_row.approach(*this); }
    void walk() override { m_row.act(*this); }
    std::string arrive() override
    {
        m_log.print("next\n");
        m_trace.TraceLog(0, "next\n");
        static const std::regex s_noise("(log -)?other   1.0\n|[0-9]+/[0-9 ]+/[0-9]+ [0-9:_]+ ");
        return std::regex_replace(readFile(m_path) + readFile(m_tracePath) + m_output.text(), s_noise, "");
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
        std::vector<Intrusion> all = {{{[this] { m_other.print("%5.1f\n", 1.0); }},
                                       {"fputs_unlocked", "fwrite_unlocked", "fflush_unlocked"}},
                                      {{change}, {""}}};
        if ((m_row.traits & IsShared) != 0)
            all.insert(all.end(), {{{print}}, {{reopen}}});
        return all;
    }
    std::vector<FILE*> streams() override { return {m_log.m_file, m_other.m_file, m_trace.m_file}; }
    std::vector<Monitor*> monitors() override
    {
        return {&m_log.m_monitor, &m_other.m_monitor, &m_trace.m_monitor};
    }

    const Row& m_row;
    const TempDir m_folder;
    const std::string m_path = m_folder.path((m_row.traits & IsFirst) != 0 ? "debug.log" : "log"),
                      m_tracePath = m_folder.path("trace");
    CapturedStream m_output{stdout};
    ALog m_log{"log"}, m_other{"other"};
    ATrace m_trace;
    int m_count = 0;
    va_list m_noArguments{};
};

void printPlain(Lines& lines)
{
    lines.m_log.print("plain %d\n", 7);
    lines.m_trace.TraceLog(0, "plain %d\n", 7);
}

void printFormatted(Lines& lines)
{
    lines.m_log.print("%5.1f\n", 1.5);
    lines.m_trace.TraceLog(0, "%5.1f\n", 1.5);
}

/// The C library opens a file to see that nobody can have written this format.
void printCount(Lines& lines)
{
    lines.m_log.print("seven %n\n", &lines.m_count);
    lines.m_trace.TraceLog(0, "seven %n\n", &lines.m_count);
}

const Row s_rows[] = {
    {"plain", printPlain, "log -plain 7\nlog -next\nopened\nplain 7\nnext\n"},
    {"first of all",
     printPlain,
     "log -plain 7\nlog -next\nplain 7\nnext\n",
     [](Lines&) {},
     CanFail | IsLine | IsShared | IsFirst,
     {{"open", "(log -plain 7\n)?log -next\n(plain 7\n)?next\n"},
      {"malloc", "(log -plain 7\n)?log -next\n(plain 7\n)?next\n"},
      {"fdopen", "(log -plain 7\n)?log -next\n(plain 7\n)?next\n"}}},
    {"in the same second", printPlain,
     "log -plain 7\nlog -plain 7\nlog -next\nopened\nplain 7\nplain 7\nnext\n", printPlain},
    {"formatted", printFormatted, "log -  1.5\nlog -next\nopened\n  1.5\nnext\n"},
    {"counted", printCount, "log -seven \nlog -next\nopened\nseven \nnext\n", [](Lines&) {},
     IsLine | IsShared},
    {"echoed", printFormatted, "log -  1.5\nlog -next\nopened\n  1.5\nnext\nlog -  1.5\nlog -next\n",
     [](Lines& lines) { lines.m_log.setEchoToConsole(true); }},
    {"set",
     [](Lines& lines) { lines.m_log.setOutputFile(lines.m_path.c_str()); },
     "log -next\nopened\nplain 7\nnext\n",
     printPlain,
     CanFail,
     {{"open", "log -(plain 7|next)\nopened\nplain 7\nnext\n"},
      {"malloc", "opened\nplain 7\nnext\n"},
      {"fdopen", "opened\nplain 7\nnext\n"}}},
    {"reopened",
     [](Lines& lines) {
         lines.m_log.reopenOutputFile(lines.m_path.c_str());
         lines.m_trace.Reopen(lines.m_tracePath.c_str());
         lines.m_trace.Close();
     },
     "log -buffered\nlog -next\nopened\nnext\n",
     [](Lines& lines) { lines.m_log.vprint("buffered\n", lines.m_noArguments); }, CanFail | IsShared},
};

void PrintTo(const Row& row, std::ostream* stream)
{
    *stream << row.name;
}

struct LogWalkTest : testing::TestWithParam<Row> {};

TEST_P(LogWalkTest, NothingThatHappensToALineStopsTheNext)
{
    const Row& row = GetParam();
    Walk walk{row.name, [&] { return std::make_unique<Lines>(row); }, row.undisturbed, row.failures};
    walk.canFail = (row.traits & CanFail) != 0;
    if ((row.traits & IsLine) != 0)
        walk.cancellations = {{"fflush_unlocked", "[^]*next\n[^]*next\n[^]*"}};
    walkEachCall(walk);
}

INSTANTIATE_TEST_SUITE_P(All, LogWalkTest, testing::ValuesIn(s_rows));

} // namespace
