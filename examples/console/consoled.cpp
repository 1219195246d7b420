// The console daemon: lets users of a PAM service log in over loopback, read and write configuration
// properties, raise events, call remote functions and run a few programs.
//
//   consoled -port N -service S [-log FILE] [-trace FILE -level N] [-confdir DIR] [-idle SECONDS]
//
// Port 0 takes a free one; the port is printed. -confdir names the folder of PAM service files to use instead
// of /etc/pam.d. SIGTERM ends every session and then the daemon; SIGHUP reopens the log and the trace. Exit
// status: 0, 1 failed to start, 2 wrong usage.

#include "ALog.h"
#include "ATrace.h"
#include "CommandLine.h"
#include "EmbeddedPam.h"
#include "Server.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>

namespace {

constexpr int kDefaultIdleSeconds = 300;
constexpr int kProgramSeconds = 20;

const std::vector<Programs::Program> kPrograms = {
    {"date", {"/bin/date", "-u"}},
    {"id", {"/usr/bin/id"}},
    {"system", {"/bin/uname", "-srm"}},
    {"disk", {"/bin/df", "-h", "/"}},
};

Server* s_server = nullptr;

void obey(int signal)
{
    signal == SIGHUP ? s_server->reopenLogs() : s_server->stop();
}

struct Options {
    int port = -1;
    const char* service = nullptr;
    const char* log = nullptr;
    const char* trace = nullptr;
    int level = 1;
    const char* confdir = nullptr;
    int idleSeconds = kDefaultIdleSeconds;
};

bool parse(int argc, char** argv, Options& options)
{
    CommandLine line(argc, argv);
    options.service = line.getArg("service");
    options.log = line.getArg("log");
    options.trace = line.getArg("trace");
    options.confdir = line.getArg("confdir");
    return line.getInt("port", 0, 65535, options.port) && line.getInt("level", 0, 9, options.level) &&
           line.getInt("idle", 1, 86'400, options.idleSeconds) && options.port >= 0 &&
           options.service != nullptr;
}

/// Whoever should read @p stream may not do so, and the library and PAM modules print there: what doesn't fit
/// is lost then. The daemon gets an end of its own, so that nobody else's changes.
void neverBlock(int stream)
{
    const std::string path = "/proc/self/fd/" + std::to_string(stream);
    struct stat file {};
    if (::fstat(stream, &file) != 0 || S_ISREG(file.st_mode))
        return;
    const int access = S_ISFIFO(file.st_mode) ? O_RDWR : O_WRONLY; // there may be no reader yet
    const Descriptor own(::open(path.c_str(), access | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!own.isOpen() || ::dup2(own.get(), stream) < 0) // a socket
        ::fcntl(stream, F_SETFL, ::fcntl(stream, F_GETFL) | O_NONBLOCK);
}

/// Before there is any other thread, those of the service library included.
void setUpProcess()
{
    sigset_t all; // until the handlers are there
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    // Who prints must not print to whatever takes the number of a stream that isn't there.
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(stream, F_GETFD) < 0)
            ::open("/dev/null", O_RDWR); // takes the lowest number
    }
    // A PAM module that asks on standard input must not make all logins wait for a terminal.
    if (std::freopen("/dev/null", "r", stdin) == nullptr)
        std::fclose(stdin);
    neverBlock(STDOUT_FILENO);
    neverBlock(STDERR_FILENO);
    std::signal(SIGPIPE, SIG_IGN); // a vanished client is a failed write, not the end of the daemon
}

void handleSignals(void (*handler)(int))
{
    for (const int signal : {SIGTERM, SIGINT, SIGHUP})
        std::signal(signal, handler);
    // Programs waits for its children itself, so no thread may take this one by chance.
    sigset_t childEnded;
    sigemptyset(&childEnded);
    sigaddset(&childEnded, SIGCHLD);
    pthread_sigmask(SIG_SETMASK, &childEnded, nullptr);
}

int serve(const Options& options, ALog& log, std::function<void()> reopen)
{
    AComponentLog daemon("consoled", log);
    AComponentLog sessions("session");
    daemon.addChildLog(sessions);
    Admission admission(sessions);
    Configuration configuration(daemon);
    Programs programs(kPrograms, kProgramSeconds);
    Services services{options.service, options.idleSeconds, sessions, admission, configuration,
                      programs,        std::move(reopen),   {}};
    Server server(services);
    s_server = &server;
    const int port = server.listen(options.port);
    if (port < 0) {
        std::perror("consoled: cannot listen");
        return 1;
    }
    handleSignals(obey);
    std::printf("consoled: listening on port %d\n", port);
    std::fflush(stdout);
    daemon.print(" listening on port %d\n", port);
    daemon.flush();
    server.serve();
    handleSignals(SIG_IGN); // the server is about to go
    daemon.print(" stopped\n");
    daemon.flush();
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    setUpProcess();
    Options options;
    if (!parse(argc, argv, options)) {
        std::fputs("usage: consoled -port N -service S [-log FILE] [-trace FILE -level N] [-confdir DIR] "
                   "[-idle SECONDS]\n",
                   stderr);
        return 2;
    }
    useServiceFilesIn(options.confdir);
    ALog log("consoled", stderr);
    ATrace trace;
    const auto isOpen = [&](const char* file, int result) {
        if (result != 0)
            log.print(" cannot open %s: %s\n", file, std::generic_category().message(errno).c_str());
        log.flush();
        return result == 0;
    };
    const auto openLogs = [&] { // the one without regard to the other
        const bool hasLog = options.log == nullptr || isOpen(options.log, log.reopenOutputFile(options.log));
        return (options.trace == nullptr || isOpen(options.trace, trace.Reopen(options.trace))) && hasLog;
    };
    if (!openLogs()) {
        std::perror("consoled: cannot open the log or the trace");
        return 1;
    }
    if (options.trace != nullptr) {
        gTrace = &trace;
        trace.Init(options.level, options.trace);
    }
    const int status = serve(options, log, openLogs);
    gTrace = nullptr;
    return status;
}
