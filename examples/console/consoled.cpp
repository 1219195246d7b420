// SPDX-License-Identifier: BSD-3-Clause
// The console daemon: lets users of a PAM service log in over loopback, read and write configuration
// properties, raise events, call remote functions and run a few programs.
//
// consoled -help tells its options, signals, limits and exit statuses.

#include "ALog.h"
#include "ATrace.h"
#include "CommandLine.h"
#include "EmbeddedPam.h"
#include "PamSessions.h"
#include "Server.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <system_error>

namespace {

const std::vector<Programs::Program> kPrograms = {
    {"date", {"/bin/date", "-u", nullptr}},
    {"id", {"/usr/bin/id", nullptr}},
    {"system", {"/bin/uname", "-srm", nullptr}},
    {"disk", {"/bin/df", "-h", "/", nullptr}},
};

constexpr const char* kHelp =
    "usage: consoled -port N -service S [-log FILE] [-trace FILE -level N] [-confdir DIR] [-idle SECONDS]\n"
    "  -port N        listen on 127.0.0.1; 0 takes a free port, which is printed\n"
    "  -service S     the PAM service, whose file must be there\n"
    "  -confdir DIR   where the service files are; else /etc/pam.d\n"
    "  -log FILE      else standard error\n"
    "  -trace FILE    with a level from 0 to 9; else none\n"
    "  -idle SECONDS  how long a user may ask for nothing, 1 to 86400; else %d\n"
    "SIGTERM and SIGINT end it, SIGHUP reopens log and trace, SIGUSR1 lists the users in the log, and\n"
    "SIGUSR2 ends a session: /bin/kill -s USR2 -q NUMBER PID.\n"
    "Exit status: 0 stopped, 1 not started or ended by exit() of a module, 2 wrong usage.\n"
    "Limits: %zu connections, %zu of users, %d of one user; %zu without a login, each for %d s, half of "
    "them\n"
    "of one address. A user makes %d properties, all users %d, and does what is logged %d times at once, "
    "then\n"
    "%d times a second. A program has %d s, a stop %d s. A request or an answer has %zu bytes.\n"
    "Programs:";

Server* s_server = nullptr;
AComponentLog* s_log = nullptr; // while nothing may end the program but main

void obey(int signal, siginfo_t* info, void*)
{
    switch (signal) {
    case SIGHUP:
        return s_server->reopenLogs();
    case SIGUSR1:
        return s_server->listUsers();
    case SIGUSR2:
        return s_server->endSession(info->si_code == SI_QUEUE ? info->si_value.sival_int : -1);
    default:
        return s_server->stop();
    }
}

/// Some module has called exit(): its status, and the end of our objects under their threads, would hide it.
void refuseToExit()
{
    if (s_log == nullptr)
        return;
    s_log->print(" ended by exit() of a module or a library\n");
    s_log->flush();
    std::_Exit(1);
}

int showHelp()
{
    using namespace limits;
    std::printf(kHelp, kIdleSeconds, kConnections, kUsers, kUserSessions, kStrangers, kStrangerSeconds,
                kUserProperties, kProperties, kDeedsAtOnce,
                static_cast<int>(std::chrono::seconds(1) / kDeedPace), kProgramSeconds, kStopSeconds,
                protocol::kMaxBytes);
    for (const Programs::Program& program : kPrograms)
        std::printf(" %s", program.name.c_str());
    return std::puts("") < 0 || std::fflush(stdout) != 0 ? 1 : 0;
}

struct Options {
    int port = -1;
    const char* service = nullptr;
    const char* log = nullptr;
    const char* trace = nullptr;
    int level = 1;
    const char* confdir = nullptr;
    int idleSeconds = limits::kIdleSeconds;
};

bool parse(int argc, char** argv, Options& options)
{
    CommandLine line(argc, argv);
    options.service = line.getArg("service");
    options.log = line.getArg("log");
    options.trace = line.getArg("trace");
    options.confdir = line.getArg("confdir");
    if (const char* unknown =
            line.getUnknown({"port", "service", "log", "trace", "level", "confdir", "idle", "help"})) {
        std::fprintf(stderr, "consoled: no option is -%s\n", unknown);
        return false;
    }
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

/// What the library and PAM modules say there names nobody, and users can make them say much.
void divertOutput()
{
    const Descriptor nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (!nowhere.isOpen() || ::dup2(nowhere.get(), STDOUT_FILENO) < 0)
        std::perror("consoled: standard output stays");
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

void handleSignals(void (*handler)(int, siginfo_t*, void*))
{
    struct sigaction action {};
    action.sa_flags = handler == nullptr ? 0 : SA_SIGINFO | SA_RESTART;
    if (handler == nullptr)
        action.sa_handler = SIG_IGN;
    else
        action.sa_sigaction = handler;
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGUSR2})
        ::sigaction(signal, &action, nullptr);
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

/// PAM takes the file of "other" for a service that has none: there it lets in whom nobody has thought of.
bool hasServiceFile(const Options& options)
{
    std::string service = options.service; // PAM reads it in lower case
    std::transform(service.begin(), service.end(), service.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    const std::string folder = options.confdir != nullptr ? options.confdir : "/etc/pam.d";
    return service.find('/') == std::string::npos && std::ifstream(folder + '/' + service).get() != EOF;
}

int serve(const Options& options, ALog& log, std::function<void()> reopen)
{
    AComponentLog daemon("consoled", log);
    AComponentLog sessions("session");
    daemon.addChildLog(sessions);
    Admission admission(sessions);
    Configuration configuration(daemon);
    Programs programs(kPrograms, limits::kProgramSeconds);
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
    divertOutput();
    s_log = &daemon;
    const bool hasEnded = server.serve();
    s_log = nullptr;
    handleSignals(nullptr); // the server is about to go
    if (!hasEnded) {
        daemon.print(" a session hangs in a step\n");
        closePamSessions();
    }
    daemon.print(" stopped\n");
    daemon.flush();
    if (!hasEnded)
        std::_Exit(0); // beside what hangs nothing may be destroyed
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    setUpProcess();
    std::atexit(refuseToExit);
    Options options;
    if (CommandLine(argc, argv).hasArg("help"))
        return showHelp();
    if (!parse(argc, argv, options)) {
        std::fputs("consoled: wrong options; see consoled -help\n", stderr);
        return 2;
    }
    if (!hasServiceFile(options)) {
        std::fprintf(stderr, "consoled: PAM has no file for the service %s\n", options.service);
        return 1;
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
