#include "Programs.h"

#include "SystemExec.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <poll.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kTimeLimitSeconds = 20;

struct Program {
    std::string_view name;
    std::vector<const char*> arguments;
};

const Program* allowed(std::string_view name)
{
    static const std::array<Program, 4> s_programs = {{
        {"date", {"date", "-u", nullptr}},
        {"id", {"id", nullptr}},
        {"system", {"uname", "-srm", nullptr}},
        {"disk", {"df", "-h", "/", nullptr}},
    }};
    const auto found = std::find_if(s_programs.begin(), s_programs.end(),
                                    [&](const Program& program) { return program.name == name; });
    return found == s_programs.end() ? nullptr : found;
}

std::time_t monotonicSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

/// Read both outputs of the child until both end.
bool drain(int output, int errors, std::size_t limit, std::string& text)
{
    std::array<pollfd, 2> ends = {{{output, POLLIN, 0}, {errors, POLLIN, 0}}};
    const std::time_t deadline = monotonicSeconds() + kTimeLimitSeconds;
    while (ends[0].fd >= 0 || ends[1].fd >= 0) {
        const std::time_t left = deadline - monotonicSeconds();
        if (left <= 0)
            return false;
        if (::poll(ends.data(), ends.size(), static_cast<int>(left) * 1000) < 0 && errno != EINTR)
            return false;
        for (pollfd& end : ends) {
            if (end.fd < 0 || end.revents == 0)
                continue;
            char bytes[1024];
            const ssize_t count = ::read(end.fd, bytes, sizeof bytes);
            if (count > 0)
                text.append(bytes, std::min(static_cast<std::size_t>(count), limit - text.size()));
            else if (count == 0 || errno != EINTR)
                end.fd = -1; // only forgotten: the runner's handler closes it
        }
    }
    return true;
}

/// SIGCHLD is blocked in every thread, so the child's end waits here until its output has been read. Then the
/// runner's handler closes the pipes and reaps the child, as a plain call.
bool reap()
{
    sigset_t childEnded;
    sigemptyset(&childEnded);
    sigaddset(&childEnded, SIGCHLD);
    const timespec limit = {kTimeLimitSeconds, 0};
    int signal = -1;
    while ((signal = sigtimedwait(&childEnded, nullptr, &limit)) < 0 && errno == EINTR) {
    }
    if (signal != SIGCHLD)
        return false;
    signalHandler(SIGCHLD);
    return true;
}

bool execute(const Program& program, std::size_t limit, std::string& output)
{
    // Static: a child that outlives its time limit still finds its runner when it ends.
    static SystemExec s_runner;
    std::string command = program.arguments.front();
    s_runner.setCommand(command);
    s_runner.setArgList(const_cast<char**>(program.arguments.data()));
    s_runner.execute();
    if (s_runner.getStdOut() < 0)
        return false;
    const bool drained = drain(s_runner.getStdOut(), s_runner.getStdErr(), limit, output);
    return reap() && drained;
}

} // namespace

Programs::Outcome Programs::run(std::string_view name, std::size_t limit, std::string& output)
{
    const Program* program = allowed(name);
    if (program == nullptr)
        return Outcome::NotAllowed;
    {
        const MonitorLock lock = m_monitor.acquireLock();
        if (m_running)
            return Outcome::Busy;
        m_running = true;
    }
    const bool finished = execute(*program, limit, output);
    const MonitorLock lock = m_monitor.acquireLock();
    m_running = false;
    return finished ? Outcome::Finished : Outcome::Failed;
}
