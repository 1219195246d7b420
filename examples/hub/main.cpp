// SPDX-License-Identifier: BSD-3-Clause
// A sensor hub: pollers measure, keep what they measured as properties, and run a program when a limit is
// passed; users log in over TCP and ask. README.md tells more. Exit status: 0 stopped, 1 not started, 2 wrong
// usage.

#include "AComponentLog.h"
#include "ALog.h"
#include "ASocket.h"
#include "AThread.h"
#include "CommandLine.h"
#include "EmbeddedPam.h"
#include "KEPClient.h"
#include "Monitor.h"
#include "PAMHelper.h"
#include "SystemExec.h"

#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <list>
#include <memory>
#include <string>
#include <sys/eventfd.h>
#include <sys/signalfd.h>

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kUsage =
    "usage: hub -port N [-service NAME] [-log FILE] [-alarm PROGRAM] [-tasks N] [-dirty N] [-used N]\n";
constexpr std::size_t kSessions = 64;
constexpr std::size_t kMaxLine = 256;
constexpr std::chrono::seconds kTimeToLogIn{10};
constexpr unsigned kIdleSeconds = 300;
constexpr int kAlarmMs = 5000;
constexpr int kNoLimit = 1'000'000'000;
constexpr int kPauseMs = 1000; // between two measurements

/// What pollers and sessions share.
struct Hub {
    AComponentLog log;
    const char* const service;
    const char* const alarm; // a program, or null
    const int ending;        // an event, raised in the end
    Monitor monitor{};
    KEPClient client{"hub", 1}; // for one thread at a time

    bool get(const char* name, int& value)
    {
        const MonitorLock lock = monitor.acquireLock();
        return client.getProperty(name, value);
    }
    void set(const char* name, int value)
    {
        const MonitorLock lock = monitor.acquireLock();
        client.updateProperty(name, value, true);
    }
};

struct Sensor {
    const char *name, *file, *key;
};

constexpr Sensor kSensors[] = {{"tasks", "/proc/stat", "procs_running"},
                               {"dirty", "/proc/meminfo", "Dirty:"}, // KiB
                               {"used", "/proc/meminfo", "Committed_AS:"}};

class Poller : public AThread {
public:
    Poller(const Sensor& sensor, int limit, Hub& hub) : m_sensor(sensor), m_limit(limit), m_hub(hub) {}
    ~Poller() override
    {
        stopThread();
        join();
    }

private:
    void run() override
    {
        bool wasHigh = false;
        do {
            const int value = measure();
            m_hub.set(m_sensor.name, value);
            if (value > m_limit && !wasHigh)
                raiseAlarm(value);
            wasHigh = value > m_limit;
            m_hub.log.flush(); // what others wrote as well
        } while (pauseFor(kPauseMs));
    }
    int measure() const
    {
        std::ifstream text(m_sensor.file);
        for (std::string word; text >> word;) {
            int number = 0;
            if (word == m_sensor.key && text >> number)
                return number;
        }
        return -1;
    }
    void raiseAlarm(int value)
    {
        m_hub.log.print(" %s is %d, above %d\n", m_sensor.name, value, m_limit);
        if (m_hub.alarm == nullptr)
            return;
        const std::string number = std::to_string(value);
        const char* const args[] = {m_hub.alarm, m_sensor.name, nullptr};
        SystemExec::Job job;
        job.args = args;
        job.input = number;
        job.timeoutMs = kAlarmMs;
        job.stop.fd = m_hub.ending;
        SystemExec::Result result;
        if (SystemExec::run(job, result) == SystemExec::Outcome::NotStarted)
            m_hub.log.print(" alarm: %s\n", std::strerror(result.reason));
        else
            m_hub.log.print(" alarm: status %d, \"%s\"\n", result.status, result.output.c_str());
    }

    const Sensor& m_sensor;
    const int m_limit;
    Hub& m_hub;
};

/// A client's connection. Its thread only ends by itself: whoever destroys it hangs it up first.
class Session : public AThread {
public:
    Session(int descriptor, sockaddr_in& peer, Hub& hub) : m_socket(descriptor, peer), m_hub(hub) {}
    ~Session() override
    {
        m_socket.shutDown();
        join();
    }
    /// Returns whether it has ended. A stranger has so much time and no more.
    bool isOver()
    {
        if (!m_isUser && Clock::now() - m_begin > kTimeToLogIn)
            m_socket.shutDown();
        return m_isOver;
    }

private:
    void run() override
    {
        while (readLine() && answer())
            ::explicit_bzero(m_line, sizeof m_line); // it may have held the password
        ::explicit_bzero(m_line, sizeof m_line);
        m_login.reset(); // closes the session
        m_isOver = true;
    }
    bool readLine()
    {
        unsigned char byte = 0;
        for (std::size_t i = 0; i < kMaxLine && m_socket.readByte(byte, kIdleSeconds) == 1; ++i) {
            m_line[i] = byte == '\n' ? '\0' : static_cast<char>(byte);
            if (byte == '\n')
                return true;
        }
        return false; // a longer line ends the session
    }
    /// Returns whether the session goes on.
    bool answer()
    {
        const char* const word = ::strtok_r(m_line, " ", &m_rest);
        const char* const name = ::strtok_r(nullptr, " ", &m_rest);
        int value = 0;
        if (word == nullptr || name == nullptr)
            return false; // "quit", for one
        if (std::strcmp(word, "login") == 0)
            return logIn(name, m_rest);
        if (!m_isUser || std::strcmp(word, "get") != 0 || !m_hub.get(name, value))
            m_socket << "refused\n";
        else
            m_socket << std::to_string(value).c_str() << "\n";
        return m_isUser;
    }
    bool logIn(std::string user, std::string password)
    {
        std::string service = m_hub.service;
        bool skipsCheck = false;
        m_login.reset(new PAMHelper("127.0.0.1", "127.0.0.1"));
        m_isUser = m_login->authenticate(service, user, password, skipsCheck) == PAM_SUCCESS &&
                   m_login->startSession();
        ::explicit_bzero(password.data(), password.size());
        m_hub.log.print(" a login was %s\n", m_isUser ? "accepted" : "refused");
        m_socket << (m_isUser ? "welcome\n" : "refused\n");
        return m_isUser;
    }

    ASocket m_socket;
    Hub& m_hub;
    const Clock::time_point m_begin = Clock::now();
    std::atomic<bool> m_isUser = false, m_isOver = false;
    std::unique_ptr<PAMHelper, PAMHelper::Dispose> m_login;
    char m_line[kMaxLine];
    char* m_rest = nullptr;
};

/// Returns the listening descriptor, or -1.
int listenTo(int port)
{
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), on = 1;
    const sockaddr_in address = {
        AF_INET, htons(static_cast<std::uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const bool isBound = ::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    return isBound && ::listen(listener, SOMAXCONN) == 0 ? listener : -1;
}

void acceptOne(int listener, std::list<Session>& sessions, Hub& hub)
{
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    const int client = ::accept4(listener, reinterpret_cast<sockaddr*>(&peer), &size, SOCK_CLOEXEC);
    if (client < 0)
        ::poll(nullptr, 0, 100); // without a descriptor the client waits in the queue
    else if (sessions.size() == kSessions)
        ::close(client);
    else if (sessions.emplace_back(client, peer, hub).start(); !sessions.back().isJoinable())
        sessions.pop_back(); // no thread is left
}

/// Serve until a signal ends it.
void serve(int listener, int signals, ALog& log, const char* file, Hub& hub)
{
    std::list<Session> sessions;
    signalfd_siginfo signal{};
    do {
        pollfd ends[] = {{signals, POLLIN, 0}, {listener, POLLIN, 0}};
        ::poll(ends, 2, 1000);
        if (ends[0].revents != 0 && ::read(signals, &signal, sizeof signal) > 0)
            log.reopenOutputFile(file);
        sessions.remove_if([](Session& session) { return session.isOver(); });
        if (ends[1].revents != 0)
            acceptOne(listener, sessions, hub);
    } while (signal.ssi_signo == 0 || signal.ssi_signo == SIGHUP);
}

} // namespace

int main(int argc, char** argv)
{
    CommandLine line(argc, argv);
    int port = 0, limits[std::size(kSensors)];
    bool isSane = !line.getUnknown({"port", "service", "log", "alarm", "tasks", "dirty", "used"}) &&
                  line.getInt("port", 1, 65535, port) && port != 0;
    for (std::size_t i = 0; i < std::size(limits); ++i) {
        limits[i] = kNoLimit;
        isSane = isSane && line.getInt(kSensors[i].name, 0, kNoLimit, limits[i]);
    }
    if (!isSane) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGHUP, SIGINT, SIGTERM})
        sigaddset(&set, signal);
    pthread_sigmask(SIG_BLOCK, &set, nullptr); // for all threads

    if (line.getArg("service") == nullptr)
        useServiceFilesIn(GORV_DEMO_CONFDIR); // without one: the examples' own
    ALog log("hub", stderr);
    const char* const file = line.getArg("log", "hub.log");
    Hub hub{
        {"hub", log}, line.getArg("service", "gorvdemo"), line.getArg("alarm"), ::eventfd(0, EFD_CLOEXEC)};
    const int listener = listenTo(port), signals = ::signalfd(-1, &set, SFD_CLOEXEC);
    if (listener < 0 || log.reopenOutputFile(file) != 0) {
        std::perror("hub: not started");
        return 1;
    }
    hub.client.initialize();
    std::list<Poller> pollers;
    for (std::size_t i = 0; i < std::size(kSensors); ++i)
        pollers.emplace_back(kSensors[i], limits[i], hub).start();
    log.print(" listening on port %d\n", port);
    serve(listener, signals, log, file, hub);
    ::eventfd_write(hub.ending, 1); // ends an alarm
    pollers.clear();
    log.print(" stopped\n");
}
