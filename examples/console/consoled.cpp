// The console daemon: lets users of a PAM service log in over loopback, read and write configuration
// properties, raise events, call remote functions and run a few programs.
//
//   consoled -port N -service S [-log FILE] [-trace FILE -level N] [-confdir DIR] [-idle SECONDS]
//
// Port 0 takes a free one; the port is printed. -confdir names the folder of PAM service files to use instead
// of /etc/pam.d. SIGTERM ends every session and then the daemon. Exit status: 0, 1 failed to start, 2 wrong
// usage.

#include "AInteger.h"
#include "ALog.h"
#include "ATrace.h"
#include "CommandLine.h"
#include "EmbeddedPam.h"
#include "NumberFormatException.h"
#include "Server.h"

#include <csignal>
#include <cstdio>

namespace {

constexpr int kDefaultIdleSeconds = 300;

Server* s_server = nullptr;

void stopServer(int)
{
    s_server->stop();
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

int number(CommandLine& line, const char* name, int defaultValue)
{
    const char* text = line.getArg(name);
    return text == nullptr ? defaultValue : AInteger::parseInt(text);
}

bool parse(int argc, char** argv, Options& options)
{
    CommandLine line(argc, argv);
    try {
        options.port = number(line, "port", -1);
        options.level = number(line, "level", options.level);
        options.idleSeconds = number(line, "idle", options.idleSeconds);
    } catch (const NumberFormatException& exception) {
        std::fprintf(stderr, "consoled: not a number: %s\n", exception.getMessage().c_str());
        return false;
    }
    options.service = line.getArg("service");
    options.log = line.getArg("log");
    options.trace = line.getArg("trace");
    options.confdir = line.getArg("confdir");
    return options.port >= 0 && options.port <= 65535 && options.idleSeconds > 0 &&
           options.service != nullptr;
}

/// Before there is any other thread, those of the service library included.
void setUpProcess()
{
    // A PAM module that asks on standard input must not make all logins wait for a terminal.
    if (std::freopen("/dev/null", "r", stdin) == nullptr)
        std::fclose(stdin);
    // Programs looks for its children itself, so no thread may take the signal by chance.
    sigset_t childEnded;
    sigemptyset(&childEnded);
    sigaddset(&childEnded, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &childEnded, nullptr);
    std::signal(SIGPIPE, SIG_IGN); // a vanished client is a failed write, not the end of the daemon
}

void handleStopSignals(void (*handler)(int))
{
    std::signal(SIGTERM, handler);
    std::signal(SIGINT, handler);
}

int serve(const Options& options, ALog& log)
{
    AComponentLog daemon("consoled", log);
    AComponentLog sessions("session");
    daemon.addChildLog(sessions);
    Configuration configuration(daemon);
    Programs programs;
    Services services{options.service, options.idleSeconds, sessions, configuration, programs, {}};
    Server server(services);
    s_server = &server;
    const int port = server.listen(options.port);
    if (port < 0) {
        std::perror("consoled: cannot listen");
        return 1;
    }
    handleStopSignals(stopServer);
    std::printf("consoled: listening on port %d\n", port);
    std::fflush(stdout);
    daemon.print(" listening on port %d\n", port);
    daemon.flush();
    server.serve();
    handleStopSignals(SIG_IGN); // the server is about to go
    daemon.print(" stopped\n");
    daemon.flush();
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!parse(argc, argv, options)) {
        std::fputs("usage: consoled -port N -service S [-log FILE] [-trace FILE -level N] [-confdir DIR] "
                   "[-idle SECONDS]\n",
                   stderr);
        return 2;
    }
    setUpProcess();
    useServiceFilesIn(options.confdir);
    ALog log("consoled", stderr);
    if (options.log != nullptr && log.setOutputFile(options.log) != 0) {
        std::perror(options.log);
        return 1;
    }
    ATrace trace;
    if (options.trace != nullptr) {
        gTrace = &trace;
        trace.Init(options.level, options.trace);
    }
    const int status = serve(options, log);
    gTrace = nullptr;
    return status;
}
