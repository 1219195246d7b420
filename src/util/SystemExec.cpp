#include "SystemExec.h"

#include "util/FileDescriptor.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <initializer_list>
#include <string_view>
#include <sys/uio.h>
#include <sys/wait.h>

SystemExec* se = nullptr;

namespace {

constexpr unsigned kStartDelaySeconds = 1;

struct Pipe {
    FileDescriptor readEnd;
    FileDescriptor writeEnd;
};

struct ChildPipes {
    Pipe input;
    Pipe output;
    Pipe error;
};

/// Move @p end off the numbers of the standard streams, where it can land if the caller has closed one: the
/// caller's lines would go into it, and the child's redirections would collide with it.
bool leaveStandardNumbers(FileDescriptor& end)
{
    if (end.get() <= STDERR_FILENO)
        end = FileDescriptor(::fcntl(end.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    return end.isOpen();
}

bool openPipe(Pipe& pipe)
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return false;
    pipe.readEnd = FileDescriptor(ends[0]);
    pipe.writeEnd = FileDescriptor(ends[1]);
    return leaveStandardNumbers(pipe.readEnd) && leaveStandardNumbers(pipe.writeEnd);
}

bool openPipes(ChildPipes& pipes)
{
    return openPipe(pipes.input) && openPipe(pipes.output) && openPipe(pipes.error);
}

sigset_t childSignal()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    return set;
}

/// Holds SIGCHLD back in the calling thread for one scope.
class ChildSignalBlock {
public:
    ChildSignalBlock()
    {
        const sigset_t set = childSignal();
        pthread_sigmask(SIG_BLOCK, &set, &m_before);
    }
    ~ChildSignalBlock() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

    ChildSignalBlock(const ChildSignalBlock&) = delete;
    ChildSignalBlock& operator=(const ChildSignalBlock&) = delete;

private:
    sigset_t m_before{};
};

/// Sleep through the signals that the caller handles, too.
void delayStart()
{
    for (unsigned left = kStartDelaySeconds; left > 0;)
        left = ::sleep(left);
}

bool redirect(const FileDescriptor& end, int stream)
{
    int result = -1;
    do {
        result = ::dup2(end.get(), stream);
    } while (result < 0 && errno == EINTR);
    return result >= 0;
}

bool redirectStreams(const ChildPipes& pipes)
{
    return redirect(pipes.input.readEnd, STDIN_FILENO) && redirect(pipes.output.writeEnd, STDOUT_FILENO) &&
           redirect(pipes.error.writeEnd, STDERR_FILENO);
}

/// What a caller of execute() does to these two signals for its own sake would pass to the new program.
void restoreSignals()
{
    std::signal(SIGCHLD, SIG_DFL);
    std::signal(SIGPIPE, SIG_DFL);
    const sigset_t set = childSignal();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

[[noreturn]] void runChild(const char* command, char* const* args, const ChildPipes& pipes)
{
    std::printf("SystemExec child: In forked process for %s, pid=%i, pgid=%i\n", command, ::getpid(),
                ::getpgid(0));
    std::fflush(stdout); // what stayed in the buffer would be lost in the exec, or land in the output pipe
    delayStart();
    if (redirectStreams(pipes)) {
        restoreSignals();
        ::execvp(command, args);
    }
    const int error = errno;
    std::printf("SystemExec child: %s: execl Error!:", command);
    std::fflush(stdout);
    errno = error;
    std::perror("SystemExec child: Unable to exec.");
    std::exit(1);
}

/// Write one line to standard output, whose buffer is empty. Past stdio: a process that has just forked pays
/// with a page fault for each page that it changes, and stdio changes several.
void writeLine(std::initializer_list<std::string_view> texts)
{
    std::array<iovec, 8> parts{};
    int count = 0;
    for (const std::string_view text : texts)
        parts[static_cast<std::size_t>(count++)] = {const_cast<char*>(text.data()), text.size()};
    while (::writev(::fileno(stdout), parts.data(), count) < 0 && errno == EINTR) {
    }
}

/// The handler may run at any point of another thread's execute(): whoever takes the number out of the field
/// closes it.
void closeOnce(int& descriptor)
{
    const int number = std::atomic_ref<int>(descriptor).exchange(-1);
    if (number >= 0)
        ::close(number);
}

int readDescriptor(int& descriptor)
{
    return std::atomic_ref<int>(descriptor).load();
}

void keep(FileDescriptor& end, int& descriptor)
{
    std::atomic_ref<int>(descriptor).store(end.release());
}

} // namespace

SystemExec::SystemExec() : m_stdOut(-1), m_stdIn(-1), m_stdErr(-1), m_pid(-1), m_argList(nullptr)
{}

SystemExec::~SystemExec() = default;

void SystemExec::setCommand(std::string& command)
{
    m_command = command;
}

void SystemExec::setArgList(char** args)
{
    m_argList = args;
}

void SystemExec::execute()
{
    closePipes();
    std::fflush(stdout);
    writeLine({"SystemExec: Excecuting command: ", m_command, "\n"});

    ChildPipes pipes;
    if (!openPipes(pipes)) {
        std::fprintf(stderr, " SystemExec: %s\n", m_command.c_str());
        return;
    }

    // A child that is killed at once is not missed, and the handler never meets a half-stored runner.
    const ChildSignalBlock block;
    // A child that can't exec ends through exit(), which would write its copy of every buffer again.
    std::fflush(nullptr);
    m_pid = ::fork();
    if (m_pid == -1) {
        std::fprintf(stderr, " SystemExec: %s - Fork error. Exiting.\n", m_command.c_str());
        return;
    }
    if (m_pid == 0) {
        char* const commandOnly[] = {m_command.data(), nullptr};
        runChild(m_command.c_str(), m_argList == nullptr ? commandOnly : m_argList, pipes);
    }

    writeLine({"SystemExec parent process.  Command: ", m_command, ": fork pid : ", std::to_string(m_pid),
               " (getpid=", std::to_string(::getpid()), ")\n"});
    keep(pipes.output.readEnd, m_stdOut);
    keep(pipes.input.writeEnd, m_stdIn);
    keep(pipes.error.readEnd, m_stdErr);
    std::atomic_ref<SystemExec*>(se).store(this);
    std::signal(SIGCHLD, signalHandler);
}

int SystemExec::getStdOut()
{
    return readDescriptor(m_stdOut);
}

int SystemExec::getStdIn()
{
    return readDescriptor(m_stdIn);
}

int SystemExec::getStdErr()
{
    return readDescriptor(m_stdErr);
}

void SystemExec::closePipes()
{
    closeOnce(m_stdErr);
    closeOnce(m_stdIn);
    closeOnce(m_stdOut);
}

void signalHandler(int sig)
{
    if (sig != SIGCHLD)
        return;
    SystemExec* runner = std::atomic_ref<SystemExec*>(se).load();
    if (runner == nullptr)
        return;
    const int error = errno;
    runner->closePipes();
    while (::wait(nullptr) == -1 && errno == EINTR) {
    }
    errno = error;
}
