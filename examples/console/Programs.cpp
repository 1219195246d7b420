#include "Programs.h"

#include "Descriptor.h"
#include "SystemExec.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace {

using Clock = std::chrono::steady_clock;
using Condition = std::function<bool()>;

constexpr int kPollMs = 50;
constexpr int kDescriptors = 1024; // more than the daemon ever has

thread_local bool s_startsProgram = false;

/// The program's own pipes are the only ones of the process. Async-signal-safe.
void closeAllButPipes()
{
    for (int number = STDERR_FILENO + 1; number < kDescriptors; ++number) {
        struct stat file {};
        if (::fstat(number, &file) == 0 && !S_ISFIFO(file.st_mode))
            ::close(number);
    }
}

/// In the child of a fork. The program starts a second later: till then the child must not keep the port, or
/// a connection, and its group is one that can be killed.
void leaveDaemon()
{
    if (!s_startsProgram)
        return;
    ::setpgid(0, 0);
    closeAllButPipes();
}

void start(SystemExec& runner, const Programs::Program& program)
{
    static const int s_installed = pthread_atfork(nullptr, nullptr, leaveDaemon);
    std::string path = program.arguments[0];
    runner.setCommand(path);
    s_startsProgram = s_installed == 0;
    runner.execute(program.arguments);
    s_startsProgram = false;
    se = nullptr; // the pipes and the child are not the signal handler's, which would take any child
}

/// Take what there is to read. Returns false at the end.
bool readSome(int descriptor, std::size_t limit, std::string& text)
{
    char bytes[1024];
    const ssize_t count = ::read(descriptor, bytes, sizeof bytes);
    if (count > 0)
        text.append(bytes, std::min(static_cast<std::size_t>(count), limit - text.size()));
    return count > 0;
}

bool hasEnded(pid_t child)
{
    siginfo_t ended{};
    return ::waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT | WNOHANG) == 0 &&
           ended.si_pid == child;
}

/// Read both outputs of the child until it has ended: others may keep them open. Returns false when its time
/// was over before.
bool drain(SystemExec& runner, const Condition& isOver, std::size_t size, std::string& text)
{
    const Descriptor input(runner.getStdIn()), output(runner.getStdOut()), error(runner.getStdErr());
    std::array<pollfd, 2> ends = {{{output.get(), POLLIN, 0}, {error.get(), POLLIN, 0}}};
    while (!isOver()) {
        const bool ended = hasEnded(runner.getPid()); // and all that it printed is there
        const int ready = ::poll(ends.data(), ends.size(), ended ? 0 : kPollMs);
        if (ready <= 0 && ended)
            return true;
        for (pollfd& end : ends) {
            if (ready > 0 && end.revents != 0 && !readSome(end.fd, size, text))
                end.fd = -1;
        }
    }
    return false;
}

/// End the child, stopped or not, and its group. Returns whether it had succeeded.
bool reap(pid_t child)
{
    ::kill(-child, SIGKILL);
    ::kill(child, SIGKILL); // one that has no group of its own yet
    int status = -1;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace

Programs::Programs(std::vector<Program> programs, int limitSeconds)
    : m_programs(std::move(programs)), m_limitSeconds(limitSeconds)
{}

Programs::Outcome Programs::run(std::string_view name, std::size_t limit,
                                const std::function<bool()>& isCancelled, std::string& output)
{
    const auto program = std::find_if(m_programs.begin(), m_programs.end(),
                                      [&](const Program& candidate) { return candidate.name == name; });
    if (program == m_programs.end())
        return Outcome::NotAllowed;
    output.reserve(limit); // with a child to be reaped, nothing runs out of memory
    const std::unique_lock onlyOne(m_running, std::try_to_lock);
    if (!onlyOne)
        return Outcome::Busy;
    SystemExec runner;
    start(runner, *program);
    if (runner.getStdOut() < 0)
        return Outcome::Failed;
    const auto end = Clock::now() + std::chrono::seconds(m_limitSeconds);
    const auto isOver = [&] { return isCancelled() || Clock::now() > end; };
    const bool inTime = drain(runner, isOver, limit, output);
    return reap(runner.getPid()) && inTime ? Outcome::Finished : Outcome::Failed;
}
