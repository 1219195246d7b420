// SPDX-License-Identifier: BSD-3-Clause
#include "SystemExec.h"
#include "base/Deadline.h"
#include "base/StandardNumbers.h"
#include "util/ChildPipes.h"

#include <algorithm>
#include <cerrno>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace {

constexpr int kGraceMs = 2000;  // from SIGTERM to SIGKILL
constexpr unsigned kNapMs = 20; // where the system can't tell of a child's end

/// What a program does to these two signals for its own sake would pass to the child.
void setSignals(posix_spawnattr_t& attributes)
{
    sigset_t signals;
    pthread_sigmask(SIG_BLOCK, nullptr, &signals);
    sigdelset(&signals, SIGCHLD);
    posix_spawnattr_setsigmask(&attributes, &signals);
    sigemptyset(&signals);
    sigaddset(&signals, SIGCHLD);
    sigaddset(&signals, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &signals);
}

/// Returns an error number, as does the next.
int setStreams(posix_spawn_file_actions_t& actions, const ChildPipes& pipes, const char* folder)
{
    int error = folder == nullptr ? 0 : posix_spawn_file_actions_addchdir_np(&actions, folder);
    for (int stream = STDIN_FILENO; error == 0 && stream <= STDERR_FILENO; ++stream)
        error = posix_spawn_file_actions_adddup2(&actions, pipes.childs[stream].get(), stream);
    return error;
}

int spawn(const SystemExec::Program& program, const ChildPipes& pipes, pid_t& child) noexcept
{
    posix_spawnattr_t attributes; // owns nothing
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes,
                             POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    setSignals(attributes);
    char** const ours = __environ; // environ is a second symbol for the same
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    int error = setStreams(actions, pipes, program.folder);
    if (error == 0)
        error = posix_spawnp(&child, program.args[0], &actions, &attributes,
                             const_cast<char* const*>(program.args),
                             program.environment == nullptr ? ours : program.environment);
    posix_spawn_file_actions_destroy(&actions);
    return error;
}

/// For poll, which @p watch wakes at the child's end if it is open.
int nap(int left, int watch)
{
    return watch < 0 && static_cast<unsigned>(left) > kNapMs ? static_cast<int>(kNapMs) : left;
}

/// Returns how a child ended, as waitpid() does.
int statusOf(const siginfo_t& ended)
{
    if (ended.si_code == CLD_EXITED)
        return W_EXITCODE(ended.si_status, 0);
    return ended.si_code == CLD_DUMPED ? ended.si_status | WCOREFLAG : ended.si_status;
}

} // namespace

int SystemExec::Child::start(const Program& program) noexcept
{
    end();
    m_status = -1;
    ChildPipes pipes;
    if (!openPipes(pipes))
        return errno;
    pid_t child = -1;
    const int error = spawn(program, pipes, child);
    if (error != 0)
        return error;
    FileDescriptor watch(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
    leaveStandardNumbers(watch);
    m_pid = child;
    m_ends[Watch] = watch.release();
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream)
        m_ends[stream] = pipes.ours[stream].release();
    return 0;
}

bool SystemExec::Child::waitFor(int timeoutMs, int& status)
{
    const Deadline deadline(timeoutMs);
    while (!settle(false)) {
        const int left = deadline.left();
        if (left == 0)
            return false;
        pollfd entry = {m_ends[Watch], POLLIN, 0};
        ::poll(&entry, 1, nap(left, entry.fd));
    }
    status = m_status;
    return true;
}

int SystemExec::Child::end() noexcept
{
    settle(true);
    for (int& end : m_ends)
        closeOnce(end);
    return m_status;
}

/// Wait for the child if it has ended, or is to be killed, and for its group with it. Once it has been waited
/// for, by whomever, its number may be a stranger's.
bool SystemExec::Child::settle(bool isKilled) noexcept
{
    if (m_pid <= 0)
        return true;
    const CancelBlock block;
    siginfo_t ended{};
    if (::waitid(P_PID, static_cast<id_t>(m_pid), &ended, WEXITED | WNOWAIT | WNOHANG) == 0 ||
        errno != ECHILD) {
        if (ended.si_pid == 0 && !isKilled)
            return false;
        ::kill(-m_pid, SIGKILL);
        ::kill(m_pid, SIGKILL); // it may have left the group
    }
    int result = -1;
    do {
        result = ::waitid(P_PID, static_cast<id_t>(m_pid), &ended, WEXITED);
    } while (result != 0 && errno == EINTR);
    m_status = result == 0 ? statusOf(ended) : -1;
    m_pid = -1;
    return true;
}

/// What passes between the program and the child of run().
class SystemExec::Talk {
public:
    Talk(Child& child, const Job& job, Result& result)
        : m_child(child), m_input(job.input), m_result(result), m_outputLimit(job.outputLimit)
    {
        for (int which = 0; which < Child::Count; ++which) {
            m_entries[which] = {child.m_ends[which], POLLIN, 0};
            ::fcntl(child.m_ends[which], F_SETFL, O_NONBLOCK); // a child may open the other ends as well
        }
        m_entries[Child::Input].events = POLLOUT;
        m_entries[Stop] = {job.stop.fd, job.stop.events, 0};
    }

    /// Returns whether the child has ended within @p deadline, and before it was to stop.
    bool finish(Deadline deadline)
    {
        bool isInTime = true;
        for (;;) {
            const bool ended = m_child.settle(false); // and all that it printed is there
            const int left = ended ? 0 : deadline.left();
            ::poll(m_entries, Count, nap(left, m_entries[Child::Watch].fd));
            feed(m_entries[Child::Input]);
            const bool mayHaveMore = collect();
            if (ended ? mayHaveMore : left != 0 && m_entries[Stop].revents == 0)
                continue;
            if (ended || !isInTime)
                return isInTime;
            isInTime = false;
            m_entries[Stop].fd = -1;
            ::kill(-m_child.getPid(), SIGTERM);
            deadline = Deadline(kGraceMs);
        }
    }

private:
    enum { Stop = Child::Count, Count };

    void feed(pollfd& entry)
    {
        if (entry.revents == 0)
            return;
        const ssize_t count = ::write(entry.fd, m_input.data(), m_input.size());
        if (count < 0 && (errno == EAGAIN || errno == EINTR))
            return;
        if (count > 0)
            m_input.remove_prefix(static_cast<std::size_t>(count));
        if (count > 0 && !m_input.empty())
            return;
        closeOnce(m_child.m_ends[Child::Input]);
        entry.fd = -1;
    }

    /// Returns whether there may be more to be kept: others may print on for ever after the child's end.
    bool collect()
    {
        bool mayHaveMore = false;
        for (int which : {Child::Output, Child::Error}) {
            if (m_entries[which].revents == 0)
                continue;
            std::string& text = which == Child::Output ? m_result.output : m_result.error;
            char bytes[2048];
            const ssize_t count = ::read(m_entries[which].fd, bytes, sizeof bytes);
            if (count > 0)
                text.insert(text.size(), bytes,
                            std::min(static_cast<std::size_t>(count), m_outputLimit - text.size()));
            if (count == 0)
                m_entries[which].fd = -1;
            mayHaveMore |= count < 0 ? errno == EINTR : count > 0 && text.size() < m_outputLimit;
        }
        return mayHaveMore;
    }

    Child& m_child;
    std::string_view m_input;
    Result& m_result;
    const std::size_t m_outputLimit;
    pollfd m_entries[Count];
};

SystemExec::Outcome SystemExec::run(const Job& job, Result& result)
{
    Result made; // the job may read what another one has printed
    Outcome outcome = Outcome::NotStarted;
    Child child;
    made.reason = child.start(job);
    if (made.reason == 0) {
        const bool isInTime = Talk(child, job, made).finish(Deadline(job.timeoutMs));
        made.status = child.end();
        outcome = isInTime ? Outcome::Ended : Outcome::Overdue;
    }
    result = std::move(made);
    return outcome;
}
