// SPDX-License-Identifier: BSD-3-Clause
#include "AComponentLog.h"
#include "ALog.h"
#include "ATrace.h"
#include "Compare.h"
#include "ReadyLine.h"

#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/PatternFormatter.h>
#include <cstdio>
#include <fcntl.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

namespace {

constexpr const char* kLine = "11/24/2026 12:34:56 consoled -session 17 of alice: get hostname\n";
constexpr const char* kFormat = "session %d of %s: get %s\n";
constexpr const char* kBraces = "session {} of {}: get {}";

/// A file of this side alone, unlinked from the start and emptied for each round.
class Scratch {
public:
    Scratch() : m_file(std::tmpfile()) {}
    ~Scratch() { std::fclose(m_file); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    FILE* stream() const { return m_file; }
    int descriptor() const { return ::fileno(m_file); }
    std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor()); }

private:
    FILE* m_file;
};

void writeBare(benchmark::State& state)
{
    const Scratch scratch;
    const std::size_t length = std::char_traits<char>::length(kLine);
    for (auto _ : state)
        benchmark::DoNotOptimize(::write(scratch.descriptor(), kLine, length));
}

void readyLineFlushed(benchmark::State& state)
{
    const Scratch scratch;
    ReadyLine ready(scratch.stream());
    for (auto _ : state) {
        ready.put(kLine);
        std::fflush(scratch.stream());
    }
}

void logPrint(benchmark::State& state)
{
    const Scratch scratch;
    ALog log("consoled", scratch.stream());
    for (auto _ : state)
        log.print(kFormat, 17, "alice", "hostname");
}

void printAndFlush(benchmark::State& state)
{
    const Scratch scratch;
    for (auto _ : state) {
        std::fprintf(scratch.stream(), "%s %s -session %d of %s: get %s\n", "11/24/2026 12:34:56", "consoled",
                     17, "alice", "hostname");
        std::fflush(scratch.stream());
    }
}

std::shared_ptr<spdlog::logger> spdlogTo(const Scratch& scratch, const char* pattern)
{
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(scratch.path());
    auto logger = std::make_shared<spdlog::logger>("consoled", sink);
    logger->set_pattern(pattern);
    return logger;
}

void spdlogFlushed(benchmark::State& state)
{
    const Scratch scratch;
    const auto logger = spdlogTo(scratch, "%m/%d/%Y %T %n -%v");
    logger->flush_on(spdlog::level::info);
    for (auto _ : state)
        logger->info(kBraces, 17, "alice", "hostname");
}

void spdlogBuffered(benchmark::State& state)
{
    const Scratch scratch;
    const auto logger = spdlogTo(scratch, "%m/%d/%Y %T %n -%v");
    for (auto _ : state)
        logger->info(kBraces, 17, "alice", "hostname");
}

void spdlogBelowLevel(benchmark::State& state)
{
    const Scratch scratch;
    const auto logger = spdlogTo(scratch, "%v");
    logger->set_level(spdlog::level::err);
    for (auto _ : state) {
        if (logger->should_log(spdlog::level::info)) // the check alone, inline
            logger->info(kBraces, 17, "alice", "hostname");
    }
}

void pocoFlushed(benchmark::State& state)
{
    const Scratch scratch;
    Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel(scratch.path()));
    file->setProperty("flush", "true");
    Poco::AutoPtr<Poco::PatternFormatter> formatter(new Poco::PatternFormatter("%m/%e/%Y %H:%M:%S %s -%t"));
    Poco::AutoPtr<Poco::FormattingChannel> channel(new Poco::FormattingChannel(formatter, file));
    Poco::Logger& logger = Poco::Logger::create("consoled", channel, Poco::Message::PRIO_INFORMATION);
    for (auto _ : state)
        logger.information("session %d of %s: get %s", 17, std::string("alice"), std::string("hostname"));
    Poco::Logger::destroy("consoled");
}

void componentBuffered(benchmark::State& state)
{
    const Scratch scratch;
    ALog log("consoled", scratch.stream());
    AComponentLog component("session", log);
    for (auto _ : state)
        component.print(kFormat, 17, "alice", "hostname");
}

void printBuffered(benchmark::State& state)
{
    const Scratch scratch;
    for (auto _ : state)
        std::fprintf(scratch.stream(), "%s %s -session %d of %s: get %s\n", "11/24/2026 12:34:56", "consoled",
                     17, "alice", "hostname");
}

void componentWithoutBase(benchmark::State& state)
{
    AComponentLog component("session");
    for (auto _ : state)
        component.print(kFormat, 17, "alice", "hostname");
}

void spdlogMilliseconds(benchmark::State& state)
{
    const Scratch scratch;
    const auto logger = spdlogTo(scratch, "%Y/%m/%d %T_%e %v");
    logger->flush_on(spdlog::level::info);
    for (auto _ : state)
        logger->info(kBraces, 17, "alice", "hostname");
}

/// A trace to a file of its own, with threshold 1.
class Trace {
public:
    Trace() { m_trace.Init(1, m_scratch.path().c_str()); }
    ATrace* operator->() { return &m_trace; }

private:
    Scratch m_scratch;
    ATrace m_trace;
};

void traceFlushed(benchmark::State& state)
{
    Trace trace;
    for (auto _ : state)
        trace->TraceLog(1, kFormat, 17, "alice", "hostname");
}

void traceFilteredOut(benchmark::State& state)
{
    Trace trace;
    for (auto _ : state)
        trace->TraceLog(2, kFormat, 17, "alice", "hostname");
}

/// What all threads of a run share: made by the first before the loop, and gone after it.
template <typename Shared, typename Call>
void onThreads(benchmark::State& state, Call call)
{
    static std::unique_ptr<Shared> s_shared;
    const Pinned pinned(state.thread_index());
    if (state.thread_index() == 0)
        s_shared = std::make_unique<Shared>();
    for (auto _ : state) // begins and ends for all threads together
        call(*s_shared);
    if (state.thread_index() == 0)
        s_shared.reset();
}

struct SharedLog {
    const Scratch scratch;
    ALog log{"consoled", scratch.stream()};
    AComponentLog component{"session", log};
};

struct SharedSpdlog {
    const Scratch scratch;
    const std::shared_ptr<spdlog::logger> logger = spdlogTo(scratch, "%m/%d/%Y %T %n -%v");
};

struct SharedSpdlogFlushed : SharedSpdlog {
    SharedSpdlogFlushed() { logger->flush_on(spdlog::level::info); }
};

void logPrintShared(benchmark::State& state)
{
    onThreads<SharedLog>(state, [](SharedLog& s) { s.log.print(kFormat, 17, "alice", "hostname"); });
}

void componentShared(benchmark::State& state)
{
    onThreads<SharedLog>(state, [](SharedLog& s) { s.component.print(kFormat, 17, "alice", "hostname"); });
}

struct SharedReadyLine {
    const Scratch scratch;
    ReadyLine ready{scratch.stream()};
};

void readyLineShared(benchmark::State& state)
{
    onThreads<SharedReadyLine>(state, [](SharedReadyLine& s) {
        s.ready.put(kLine);
        std::fflush(s.scratch.stream());
    });
}

template <typename Shared>
void spdlogShared(benchmark::State& state)
{
    onThreads<Shared>(state, [](Shared& s) { s.logger->info(kBraces, 17, "alice", "hostname"); });
}

/// The goals for 2, 4 and 8 threads on one log.
struct ThreadGoals {
    const char* what;
    double atMost[3];
};

void compareThreads(const ThreadGoals& goals, const Body& ours, const Body& theirs)
{
    for (int i = 0, threads = 2; i < 3; ++i, threads *= 2)
        compare({std::string(goals.what) + ", " + std::to_string(threads) + " threads",
                 "spdlog basic_logger_mt, the same", goals.atMost[i]},
                ours, theirs, threads);
}

} // namespace

void registerLogComparisons()
{
    const char* print = "ALog::print, in the kernel";
    compare({print, "write(2) of the same bytes, prebuilt", 1.20}, logPrint, writeBare);
    const char* ready = "a ready line and what the C library does";
    compare({print, ready, 1.15}, logPrint, readyLineFlushed);
    compare({print, "fprintf + fflush of the same line", 1.08}, logPrint, printAndFlush);
    compare({print, "spdlog basic_logger_mt, same stamp, flush_on", 0.88}, logPrint, spdlogFlushed);
    compare({print, "POCO FileChannel with pattern, flush", 0.28}, logPrint, pocoFlushed);
    compare({"AComponentLog::print, buffered", "fprintf of the same line", 1.20}, componentBuffered,
            printBuffered);
    compare({"AComponentLog::print, buffered", "spdlog, buffered", 0.70}, componentBuffered, spdlogBuffered);
    compare({"AComponentLog::print without base log", "spdlog below its level, inline", 1.0},
            componentWithoutBase, spdlogBelowLevel);
    compare({"ATrace::TraceLog, flushed", "spdlog with milliseconds, flush_on", 0.90}, traceFlushed,
            spdlogMilliseconds);
    compare({"ATrace::TraceLog, filtered out", "spdlog below its level, inline", 1.0}, traceFilteredOut,
            spdlogBelowLevel);
    compareThreads({"ALog::print", {0.95, 0.80, 0.80}}, logPrintShared, spdlogShared<SharedSpdlogFlushed>);
    compare({"ALog::print, 8 threads", ready, 1.25}, logPrintShared, readyLineShared, 8);
    compareThreads({"AComponentLog::print", {0.60, 1.0, 1.0}}, componentShared, spdlogShared<SharedSpdlog>);
}
