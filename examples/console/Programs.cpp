#include "Programs.h"

#include "PAMHelper.h"
#include "SystemExec.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <ctime>
#include <optional>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kTimeLimitSeconds = 20;
constexpr int kPollMs = 50;

struct Program {
    std::string_view name;
    std::string path;
    std::vector<const char*> arguments;
};

const Program* allowed(std::string_view name)
{
    static const std::array<Program, 4> s_programs = {{
        {"date", "/bin/date", {"date", "-u", nullptr}},
        {"id", "/usr/bin/id", {"id", nullptr}},
        {"system", "/bin/uname", {"uname", "-srm", nullptr}},
        {"disk", "/bin/df", {"df", "-h", "/", nullptr}},
    }};
    const auto found = std::find_if(s_programs.begin(), s_programs.end(),
                                    [&](const Program& program) { return program.name == name; });
    return found == s_programs.end() ? nullptr : found;
}

/// The time that one run has, and whoever may end it sooner.
class Limit {
public:
    explicit Limit(const std::function<bool()>& isCancelled)
        : m_isCancelled(isCancelled), m_end(now() + kTimeLimitSeconds)
    {}
    bool isOver() const { return m_isCancelled() || now() > m_end; }

private:
    static std::time_t now()
    {
        timespec time{};
        clock_gettime(CLOCK_MONOTONIC, &time);
        return time.tv_sec;
    }

    const std::function<bool()>& m_isCancelled;
    std::time_t m_end;
};

/// Take what there is to read. Returns false at the end.
bool readSome(int descriptor, std::size_t limit, std::string& text)
{
    char bytes[1024];
    const ssize_t count = ::read(descriptor, bytes, sizeof bytes);
    if (count > 0)
        text.append(bytes, std::min(static_cast<std::size_t>(count), limit - text.size()));
    return count > 0;
}

/// Read both outputs of the child until both end. The descriptors stay the runner's.
bool drain(SystemExec& runner, const Limit& limit, std::size_t size, std::string& text)
{
    std::array<pollfd, 2> ends = {{{runner.getStdOut(), POLLIN, 0}, {runner.getStdErr(), POLLIN, 0}}};
    while (ends[0].fd >= 0 || ends[1].fd >= 0) {
        if (limit.isOver())
            return false;
        if (::poll(ends.data(), ends.size(), kPollMs) <= 0)
            continue;
        for (pollfd& end : ends) {
            if (end.revents != 0 && !readSome(end.fd, size, text))
                end.fd = -1;
        }
    }
    return true;
}

/// Close the pipes and reap the child if it has ended; SIGCHLD is blocked in every thread, so the runner's
/// handler works only here, as a plain call. Returns whether the program succeeded, or nothing while it runs.
std::optional<bool> reap()
{
    PAMHelper::getMonitor()->fastLock(); // no PAM module has a child of its own meanwhile
    siginfo_t ended{};
    const bool hasEnded = ::waitid(P_ALL, 0, &ended, WEXITED | WNOWAIT | WNOHANG) == 0 && ended.si_pid != 0;
    if (hasEnded)
        signalHandler(SIGCHLD);
    PAMHelper::getMonitor()->releaseLock();
    if (!hasEnded)
        return std::nullopt;
    return ended.si_code == CLD_EXITED && ended.si_status == 0;
}

SystemExec& runner()
{
    static SystemExec s_runner; // outlives a child that was given up
    return s_runner;
}

} // namespace

Programs::Outcome Programs::run(std::string_view name, std::size_t limit,
                                const std::function<bool()>& isCancelled, std::string& output)
{
    const Program* program = allowed(name);
    if (program == nullptr)
        return Outcome::NotAllowed;
    if (!begin())
        return Outcome::Busy;
    std::string command = program->path;
    runner().setCommand(command);
    runner().setArgList(const_cast<char**>(program->arguments.data()));
    runner().execute();
    std::optional<bool> succeeded;
    const bool started = runner().getStdOut() >= 0;
    if (started) {
        const Limit time(isCancelled);
        const bool drained = drain(runner(), time, limit, output);
        while (drained && !(succeeded = reap()) && !time.isOver())
            ::poll(nullptr, 0, kPollMs);
    }
    const MonitorLock lock = m_monitor.acquireLock();
    m_running = false;
    m_givenUp = started && !succeeded;
    return succeeded == true ? Outcome::Finished : Outcome::Failed;
}

/// Returns whether no other program is running.
bool Programs::begin()
{
    const MonitorLock lock = m_monitor.acquireLock();
    if (m_running || (m_givenUp && !reap()))
        return false;
    m_givenUp = false;
    m_running = true;
    return true;
}
