// SPDX-License-Identifier: BSD-3-Clause
#include "SystemExec.h"

#include "util/ChildPipes.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <link.h>
#include <sys/uio.h>
#include <sys/wait.h>

SystemExec* se = nullptr;

namespace {

constexpr unsigned kStartDelaySeconds = 1;
constexpr int kRunning = -1; // no child ends with this status

/// The runner whose pipe ends the handler is still to close. Once it has taken it from here it never touches
/// that runner again, which may be gone by the next signal although ::se names it still.
constinit std::atomic<SystemExec*> s_outstanding = nullptr;

/// The child that was started last, and its status.
constinit std::atomic<std::uint64_t> s_lastChild = 0;

constexpr std::uint64_t childWithStatus(pid_t child, int status)
{
    return static_cast<std::uint64_t>(child) << 32 | static_cast<std::uint32_t>(status);
}

sigset_t childSignal()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    return set;
}

sigset_t everySignal()
{
    sigset_t set;
    sigfillset(&set);
    return set;
}

/// Holds signals back in the calling thread for one scope.
class SignalBlock {
public:
    explicit SignalBlock(const sigset_t& set) { pthread_sigmask(SIG_BLOCK, &set, &m_before); }
    ~SignalBlock() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

    SignalBlock(const SignalBlock&) = delete;
    SignalBlock& operator=(const SignalBlock&) = delete;

private:
    sigset_t m_before{};
};

void dropHandlers()
{
    for (int signal = 1; signal < NSIG; ++signal) {
        struct sigaction action {};
        if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN)
            std::signal(signal, SIG_DFL);
    }
    std::signal(SIGPIPE, SIG_IGN); // the reader of the progress line may have gone
}

/// A signal must not run a handler of the caller in the child, be it only until the exec: the handler would
/// swallow what is to end the child, cut its delay short, and speak to the caller through what both share.
pid_t forkWithoutHandlers()
{
    const SignalBlock block(everySignal());
    const pid_t child = ::fork();
    if (child == 0)
        dropHandlers();
    return child;
}

bool redirectStreams(const ChildPipes& pipes)
{
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO;) {
        if (::dup2(pipes.childs[stream].get(), stream) >= 0)
            ++stream;
        else if (errno != EINTR)
            return false;
    }
    return true;
}

/// What a caller of execute() does to these two signals for its own sake would pass to the new program.
void restoreSignals()
{
    std::signal(SIGCHLD, SIG_DFL);
    std::signal(SIGPIPE, SIG_DFL);
    const sigset_t set = childSignal();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

/// Write three texts at once, past the standard streams, whose buffers may hold what is the caller's to
/// write. Nor is anything allocated or translated: another thread may have held the lock for that when the
/// child came to be.
void tell(int descriptor, const char* begin, const char* middle, const char* end)
{
    iovec pieces[3];
    iovec* piece = pieces;
    for (const char* const text : {begin, middle, end})
        *piece++ = {const_cast<char*>(text), std::strlen(text)};
    [[maybe_unused]] const ssize_t count = ::writev(descriptor, pieces, 3);
}

/// Both pipes end before the caller's exit handlers run, which may write or wait.
[[noreturn]] void reportFailure(const char* command, int error, const ChildPipes& pipes)
{
    std::signal(SIGPIPE, SIG_IGN);
    tell(pipes.childs[STDOUT_FILENO].get(), "SystemExec child: ", command, ": execl Error!:");
    tell(pipes.childs[STDERR_FILENO].get(), "SystemExec child: Unable to exec.: ", ::strerrordesc_np(error),
         "\n");
    ::closefrom(STDIN_FILENO);
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream)
        ::open("/dev/null", O_RDWR); // the lowest number that is free
    std::exit(1);
}

[[noreturn]] void runChild(const char* command, char* const* args, const ChildPipes& pipes)
{
    char ids[64];
    std::snprintf(ids, sizeof ids, ", pid=%i, pgid=%i\n", ::getpid(), ::getpgid(0));
    const auto before = std::signal(SIGXFSZ, SIG_IGN); // standard output may be a file that is full
    tell(STDOUT_FILENO, "SystemExec child: In forked process for ", command, ids);
    ::sleep(kStartDelaySeconds);
    if (redirectStreams(pipes)) {
        restoreSignals();
        std::signal(SIGXFSZ, before);
        ::execvp(command, args);
    }
    reportFailure(command, errno, pipes);
}

using Handler = void (*)(int);

/// A function of the program's own that has the handler's name goes before it wherever that name is looked
/// up.
extern "C" GORV_LOCAL void gorvSignalHandler(int sig) __attribute__((alias("_Z13signalHandleri")));

/// The handler at the address that the program knows, too. One that isn't position-independent knows a stub
/// of its own, whose symbol is without a definition.
Handler handlerOfThisLibrary()
{
    void* const known = ::dlsym(RTLD_DEFAULT, "_Z13signalHandleri"); // not what the compiler binds here
    Dl_info object{};
    void* entry = nullptr;
    ::dladdr1(known, &object, &entry, RTLD_DL_SYMENT);
    const auto* symbol = static_cast<const ElfW(Sym)*>(entry);
    const bool isStub = symbol != nullptr && symbol->st_shndx == SHN_UNDEF;
    return isStub ? reinterpret_cast<Handler>(known) : gorvSignalHandler;
}

/// As signal() does, but not for a child that is merely stopped: the handler would close its pipes and wait
/// for its end.
void installHandler()
{
    struct sigaction action {};
    action.sa_handler = handlerOfThisLibrary();
    action.sa_flags = SA_RESTART | SA_NOCLDSTOP;
    sigaction(SIGCHLD, &action, nullptr);
}

int readDescriptor(int& descriptor)
{
    return std::atomic_ref<int>(descriptor).load();
}

void keep(FileDescriptor& end, int& descriptor)
{
    std::atomic_ref<int>(descriptor).store(end.release());
}

void reapOneChild()
{
    int status = 0;
    pid_t child = -1;
    do {
        child = ::wait(&status);
    } while (child == -1 && errno == EINTR);
    std::uint64_t last = childWithStatus(child, kRunning);
    s_lastChild.compare_exchange_strong(last, childWithStatus(child, status));
}

} // namespace

SystemExec::SystemExec() : m_stdOut(-1), m_stdIn(-1), m_stdErr(-1), m_pid(-1), m_argList(nullptr)
{}

SystemExec::~SystemExec()
{
    leaveHandler();
}

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
    start(m_argList);
}

void SystemExec::execute(const std::vector<std::string>& args)
{
    std::vector<char*> pointers(args.size() + 1);
    std::transform(args.begin(), args.end(), pointers.begin(),
                   [](const std::string& arg) { return const_cast<char*>(arg.c_str()); });
    start(args.empty() ? nullptr : pointers.data());
}

void SystemExec::start(char** args) noexcept
{
    const CancelBlock cancelBlock; // the child would act on it, too
    leaveLastChild();
    std::printf("SystemExec: Excecuting command: %s\n", m_command.c_str());
    std::fflush(stdout);

    ChildPipes pipes;
    if (!openPipes(pipes)) {
        std::fprintf(stderr, " SystemExec: %s\n", m_command.c_str());
        return;
    }

    {
        // Where SIGCHLD is blocked in every thread, a child that is killed at once is not missed, and the
        // handler never meets a half-stored runner.
        const SignalBlock block(childSignal());
        m_pid = forkWithoutHandlers();
        if (m_pid == 0) {
            char* const commandOnly[] = {m_command.data(), nullptr};
            runChild(m_command.c_str(), args == nullptr ? commandOnly : args, pipes);
        }
        if (m_pid > 0) {
            keep(pipes.ours[STDOUT_FILENO], m_stdOut);
            keep(pipes.ours[STDIN_FILENO], m_stdIn);
            keep(pipes.ours[STDERR_FILENO], m_stdErr);
            enterHandler();
        }
    }
    if (m_pid == -1) {
        std::fprintf(stderr, " SystemExec: %s - Fork error. Exiting.\n", m_command.c_str());
        return;
    }
    // Whoever holds up the output doesn't hold up the end of the child.
    std::printf("SystemExec parent process.  Command: %s: fork pid : %i (getpid=%i)\n", m_command.c_str(),
                m_pid, ::getpid());
    std::fflush(stdout);
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

int SystemExec::getPid()
{
    return m_pid;
}

bool SystemExec::getStatus(int& status)
{
    const std::uint64_t last = s_lastChild.load();
    const int lastStatus = static_cast<int>(static_cast<std::uint32_t>(last));
    if (last != childWithStatus(m_pid, lastStatus) || lastStatus == kRunning)
        return false;
    status = lastStatus;
    return true;
}

void SystemExec::leaveLastChild()
{
    m_pid = -1;
    leaveHandler();
    if (std::atomic_ref<SystemExec*>(se).load() == this)
        return closePipes();
    for (int* descriptor : {&m_stdErr, &m_stdIn, &m_stdOut}) // the caller's by now
        std::atomic_ref<int>(*descriptor).store(-1);
}

void SystemExec::enterHandler()
{
    s_lastChild.store(childWithStatus(m_pid, kRunning));
    s_outstanding.store(this);
    std::atomic_ref<SystemExec*>(se).store(this);
    installHandler();
}

void SystemExec::leaveHandler()
{
    SystemExec* self = this;
    s_outstanding.compare_exchange_strong(self, nullptr);
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
    const CancelBlock block; // or the pipes stay half closed
    SystemExec* outstanding = runner;
    if (s_outstanding.compare_exchange_strong(outstanding, nullptr))
        runner->closePipes();
    reapOneChild();
    errno = error;
}
