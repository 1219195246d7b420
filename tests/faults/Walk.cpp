// SPDX-License-Identifier: BSD-3-Clause
#include "faults/Walk.h"
#include "ALog.h"
#include "support/Files.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <fcntl.h>
#include <future>
#include <gtest/gtest.h>
#include <list>
#include <regex>
#include <semaphore>
#include <set>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using Kind = Faults::Kind;

constexpr std::chrono::seconds kHung{20};
constexpr std::chrono::microseconds kPause{100};
constexpr int kPausesAsleep = 5;

/// Errors are captured on many a road.
const int s_errors = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
std::string s_step;

/// For what leaves threads behind that can't be ended.
[[noreturn]] void giveUp(const char* what)
{
    const std::string text = s_step + Faults::disturbedCall() + ": " + what + "\n";
    [[maybe_unused]] const ssize_t count = ::write(s_errors, text.data(), text.size());
    ::_exit(1);
}

/// A thread that waits to be let through.
class Intruder {
public:
    explicit Intruder(std::function<void()> act) : m_act(std::move(act)) {}
    ~Intruder()
    {
        m_start.release(); // to no effect, if the walker has let it through
        if (m_ended.wait_for(kHung) != std::future_status::ready)
            giveUp("the other thread never ended");
    }

    /// Returns once the act is done or, unless it must get through, waits for somebody.
    void letThrough(bool mustPass)
    {
        const auto deadline = std::chrono::steady_clock::now() + kHung / 2;
        m_mayAct = true;
        m_start.release();
        for (int asleep = 0; !m_isDone && (mustPass || asleep < kPausesAsleep);) {
            ::usleep(kPause.count());
            asleep = isAsleep() ? asleep + 1 : 0;
            if (std::chrono::steady_clock::now() > deadline)
                giveUp("the other thread can't get through");
        }
    }

private:
    void run()
    {
        m_thread = ::gettid();
        m_start.acquire();
        if (m_mayAct)
            m_act();
        m_isDone = true;
    }
    bool isAsleep() const
    {
        char text[256] = {};
        const std::string path = "/proc/self/task/" + std::to_string(m_thread) + "/stat";
        const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC, 0);
        const ssize_t count = ::read(file, text, sizeof text - 1);
        ::close(file);
        const char* const name = std::strrchr(text, ')');
        return count > 0 && name != nullptr && std::strncmp(name, ") S", 3) == 0;
    }

    const std::function<void()> m_act;
    std::atomic<bool> m_mayAct = false, m_isDone = false;
    std::atomic<pid_t> m_thread = 0;
    std::binary_semaphore m_start{0};
    const std::future<void> m_ended = std::async(std::launch::async, [this] { run(); }); // the last
};

void printToNowhere()
{
    ALog log("other");
    log.setOutputFile("/dev/null");
    log.setEnabled(true);
    log.print("%5.1f\n", 1.0);
    std::fclose(log.m_file);
}

/// Write a line and ask for the time in a child, which must get to its end.
[[maybe_unused]] void printInChild()
{
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(kHung.count() / 2);
        printToNowhere();
        const std::time_t now = std::time(nullptr);
        ::_exit(std::localtime(&now) == nullptr ? 1 : 0);
    }
    int status = 0;
    while (::waitpid(child, &status, WNOHANG) == 0)
        std::this_thread::yield(); // whoever sleeps waits for the walker
    if (status != 0)
        giveUp("a child never ended");
}

/// The zone is read anew by one thread while another flushes all streams.
std::vector<Intrusion> intrusionsOn(Road& road)
{
    const auto printInOtherZone = [] {
        ::setenv("TZ", ":no-such-file", 1);
        printToNowhere();
    };
    std::vector<Intrusion> all = road.intrusions();
#if !defined(__SANITIZE_THREAD__) &&                                                                         \
    !defined(__SANITIZE_ADDRESS__) // which leave locks of their own to the child
    all.push_back({{printInChild}});
#endif
    all.push_back({{[] { std::fflush(nullptr); }, printInOtherZone}});
    return all;
}

std::list<Intruder> s_intruders;
std::set<std::string> s_mustPass;
pid_t s_process = 0;

void letThrough(const char* call)
{
    if (::getpid() != s_process)
        return; // a child has no other threads
    const bool mustPass = s_mustPass.contains("") || s_mustPass.contains(call);
    for (Intruder& intruder : s_intruders)
        intruder.letThrough(mustPass);
}

/// What must be after each step as it was before: descriptors, objects, transactions, sessions, and what
/// nobody may do.
std::array<int, 6> balance()
{
    return {openDescriptors(),  Faults::s_objects,     Faults::s_transactions,
            Faults::s_sessions, Faults::s_wrongCloses, Faults::s_wrongUses};
}

void expectFree(Road& road)
{
    std::vector<FILE*> streams = road.streams();
    streams.insert(streams.end(), {stdout, stderr});
    std::vector<Monitor*> monitors = road.monitors();
    monitors.insert(monitors.end(), {&PAMHelper::instanceMapMonitor, &PAMHelper::instanceFwMapMonitor});
    std::thread([&] {
        for (FILE* const stream : streams) {
            if (stream == nullptr)
                continue;
            EXPECT_EQ(::ftrylockfile(stream), 0) << "of a stream";
            ::funlockfile(stream);
        }
        for (Monitor* const monitor : monitors) {
            EXPECT_EQ(::pthread_mutex_trylock(&monitor->m_mutex), 0) << "of a monitor";
            monitor->releaseLock();
        }
    }).join();
}

struct Step {
    Kind kind = Kind::Failure;
    int number = -1;
    std::size_t intrusion = 0;
    std::string outcome = {};
    bool wasCancelled = false;
};

void lead(Road& road, Step& step)
{
    const auto walk = [](void* way) -> void* {
        const auto& [to, with] = *static_cast<std::pair<Road&, Step&>*>(way);
        to.approach();
        const Faults faults(with.kind, with.number);
        to.walk();
        return nullptr;
    };
    std::pair<Road&, Step&> way(road, step);
    pthread_t walker{};
    ::pthread_create(&walker, nullptr, walk, &way);
    timespec deadline{std::time(nullptr) + kHung.count(), 0};
    void* result = nullptr;
    if (::pthread_timedjoin_np(walker, &result, &deadline) != 0)
        giveUp("the walker never ended");
    step.wasCancelled = result == PTHREAD_CANCELED;
    s_intruders.clear(); // waits for them
    ::unsetenv("TZ");
    expectFree(road);
    step.outcome.append(road.arrive());
}

/// Returns what is to come of a step, as a regular expression.
std::string expected(const Walk& walk, const Step& step)
{
    const auto& table = step.kind == Kind::Failure ? walk.failures : walk.cancellations;
    const std::string call = step.kind == Kind::Failure ? Faults::disturbedCall() : Faults::cancelledIn();
    const auto entry = table.find(call);
    EXPECT_FALSE(step.wasCancelled && entry == table.end()) << "cancelled in " << call;
    const bool isInTable = step.kind == Kind::Failure || step.wasCancelled;
    return isInTable && entry != table.end() ? entry->second : walk.undisturbed;
}

void take(const Walk& walk, Step& step)
{
    step.outcome.reserve(4096); // nothing is to be made from here on that outlives the road
    s_step = walk.name + ", kind " + std::to_string(static_cast<int>(step.kind)) + '.' +
             std::to_string(step.intrusion) + ", call " + std::to_string(step.number) + ' ';
    const auto before = balance();
    {
        const std::unique_ptr<Road> road = walk.begin();
        if (step.kind == Kind::Preemption) {
            const Intrusion intrusion = intrusionsOn(*road)[step.intrusion];
            s_mustPass = intrusion.mustPass;
            for (const auto& act : intrusion.acts)
                s_intruders.emplace_back(act);
        }
        lead(*road, step);
        s_mustPass.clear();
    }
    const auto after = balance();
    SCOPED_TRACE(s_step + Faults::disturbedCall() + ": " + step.outcome);
    EXPECT_TRUE(after == before || step.number < 0)
        << testing::PrintToString(before) << " became " << testing::PrintToString(after);
    EXPECT_TRUE(PAMHelper::instanceMap.empty());
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
    EXPECT_TRUE(std::regex_match(step.outcome, std::regex(expected(walk, step))));
}

using Names = std::set<std::string>;

/// Returns the names of the calls that were disturbed, or in which a cancellation acted.
Names walkWith(const Walk& walk, Kind kind, std::size_t intrusion = 0)
{
    Names calls;
    for (Step step{kind, 0, intrusion};; step = {kind, step.number + 1, intrusion}) {
        take(walk, step);
        if (Faults::disturbedCall().empty())
            return calls;
        calls.insert(kind == Kind::Cancellation ? Faults::cancelledIn() : Faults::disturbedCall());
    }
}

/// What a walk names must be met on it.
void expectMet(const std::map<std::string, std::string>& named, const Names& met)
{
    for (const auto& [name, outcome] : named)
        EXPECT_TRUE(met.contains(name)) << name;
}

} // namespace

void walkEachCall(const Walk& walk)
{
    s_process = ::getpid();
    Faults::s_letThrough = letThrough;
    std::set_terminate([] { giveUp("ends the process"); });
    Step undisturbed;
    take(walk, undisturbed);
    if (walk.canFail) {
        Names failed = walkWith(walk, Kind::Failure);
        failed.insert("malloc"); // which new doesn't call under a sanitizer
        expectMet(walk.failures, failed);
    }
    walkWith(walk, Kind::Interruption);
    expectMet(walk.cancellations, walkWith(walk, Kind::Cancellation));
    const std::size_t intrusions = intrusionsOn(*walk.begin()).size();
    for (std::size_t i = 0; i < intrusions; ++i)
        walkWith(walk, Kind::Preemption, i);
}
