#include "Programs.h"

#include "Descriptor.h"
#include "SystemExec.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace {

using Clock = std::chrono::steady_clock;
using Condition = std::function<bool()>;

constexpr int kPollMs = 50;

thread_local bool s_startsProgram = false;

/// The program's own pipes are the only ones of the process.
void closeAllButPipes()
{
    DIR* const folder = ::opendir("/proc/self/fd");
    if (folder == nullptr)
        return;
    while (const dirent* entry = ::readdir(folder)) {
        const int number = std::atoi(entry->d_name);
        struct stat file {};
        if (number > STDERR_FILENO && number != ::dirfd(folder) && ::fstat(number, &file) == 0 &&
            !S_ISFIFO(file.st_mode))
            ::close(number);
    }
    ::closedir(folder);
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

/// Read both outputs of the child until both end, or its time.
void drain(SystemExec& runner, const Condition& isOver, std::size_t size, std::string& text)
{
    const Descriptor input(runner.getStdIn()), output(runner.getStdOut()), error(runner.getStdErr());
    std::array<pollfd, 2> ends = {{{output.get(), POLLIN, 0}, {error.get(), POLLIN, 0}}};
    while ((ends[0].fd >= 0 || ends[1].fd >= 0) && !isOver()) {
        if (::poll(ends.data(), ends.size(), kPollMs) <= 0)
            continue;
        for (pollfd& end : ends) {
            if (end.revents != 0 && !readSome(end.fd, size, text))
                end.fd = -1;
        }
    }
}

bool hasEnded(pid_t child)
{
    siginfo_t ended{};
    return ::waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT | WNOHANG) == 0 &&
           ended.si_pid == child;
}

/// Wait for the child, or end it, stopped or not. Nothing of its group is left. Returns whether it succeeded.
bool finish(pid_t child, const Condition& isOver)
{
    while (!hasEnded(child) && !isOver())
        ::poll(nullptr, 0, kPollMs);
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
    drain(runner, isOver, limit, output);
    return finish(runner.getPid(), isOver) ? Outcome::Finished : Outcome::Failed;
}
