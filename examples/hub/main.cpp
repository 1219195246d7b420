// SPDX-License-Identifier: BSD-3-Clause
// A sensor hub: pollers measure, keep what they measured as properties, and run a program when a limit is
// passed; users log in over TCP, ask, and set the limits. README.md tells more. Exit status: 0 stopped, 1 not
// started, 2 wrong usage.

#include "AComponentLog.h"
#include "AInteger.h"
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
#include <climits>
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

constexpr const char* kUsage = "usage: hub -port N [-service NAME] [-log FILE] [-alarm PROGRAM]\n";
constexpr std::size_t kSessions = 64;
constexpr std::size_t kMaxLine = 256;
constexpr std::chrono::seconds kTimeToLogIn{10};
constexpr unsigned kIdleSeconds = 300;
constexpr int kAlarmMs = 5000;
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
    bool set(const char* name, int value)
    {
        const MonitorLock lock = monitor.acquireLock();
        return client.updateProperty(name, value, true) >= 0;
    }
};

struct Sensor {
    const char *name, *limit, *file, *key;
};

constexpr Sensor kSensors[] = {{"tasks", "tasks.limit", "/proc/stat", "procs_running"},
                               {"dirty", "dirty.limit", "/proc/meminfo", "Dirty:"}, // KiB
                               {"used", "used.limit", "/proc/meminfo", "Committed_AS:"}};

class Poller : public AThread {
public:
    Poller(const Sensor& sensor, Hub& hub) : m_sensor(sensor), m_hub(hub) {}
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
            int value = 0, limit = 0;
            if (measure(value) && m_hub.set(m_sensor.name, value) && m_hub.get(m_sensor.limit, limit)) {
                if (value > limit && !wasHigh)
                    raiseAlarm(value, limit);
                wasHigh = value > limit;
            }
            m_hub.log.flush(); // what others wrote as well
        } while (pauseFor(kPauseMs));
    }
    bool measure(int& value) const
    {
        std::ifstream text(m_sensor.file);
        for (std::string word; text >> word;)
            if (word == m_sensor.key)
                return static_cast<bool>(text >> value);
        return false;
    }
    void raiseAlarm(int value, int limit)
    {
        const std::string text =
            std::string(m_sensor.name) + " is " + std::to_string(value) + ", above " + std::to_string(limit);
        m_hub.log.print(" %s\n", text.c_str());
        if (m_hub.alarm == nullptr)
            return;
        const char* const args[] = {m_hub.alarm, nullptr};
        SystemExec::Job job;
        job.args = args;
        job.input = text;
        job.timeoutMs = kAlarmMs;
        job.stop.fd = m_hub.ending;
        SystemExec::Result result;
        if (SystemExec::run(job, result) == SystemExec::Outcome::NotStarted)
            m_hub.log.print(" alarm: %s\n", std::strerror(result.reason));
        else
            m_hub.log.print(" alarm: status %d, \"%s\"\n", result.status, result.output.c_str());
    }

    const Sensor& m_sensor;
    Hub& m_hub;
};

/// A client's connection. Its thread only ends by itself: whoever destroys it hangs it up first.
class Session : public AThread {
public:
    Session(int descriptor, sockaddr_in& peer, Hub& hub) : m_socket(descriptor, peer), m_hub(hub)
    {
        ::inet_ntop(AF_INET, &peer.sin_addr, m_peer, sizeof m_peer);
    }
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
        if (m_isUser && std::strcmp(word, "get") == 0 && m_hub.get(name, value))
            m_socket << std::to_string(value).c_str() << "\n";
        else if (m_isUser && std::strcmp(word, "set") == 0 && setLimit(name, m_rest))
            m_socket << "done\n";
        else
            m_socket << "refused\n";
        return m_isUser;
    }
    bool setLimit(const char* name, const char* text)
    {
        int value = 0;
        for (const Sensor& sensor : kSensors)
            if (std::strcmp(sensor.limit, name) == 0)
                return AInteger::parseWhole(text, 0, INT_MAX, value) && m_hub.set(name, value);
        return false;
    }
    bool logIn(std::string user, std::string password)
    {
        std::string service = m_hub.service;
        bool skipsCheck = false;
        m_login.reset(new PAMHelper(m_peer, "127.0.0.1"));
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
    char m_line[kMaxLine], m_peer[INET_ADDRSTRLEN];
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
    int port = 0;
    if (line.getUnknown({"port", "service", "log", "alarm"}) || !line.getInt("port", 1, 65535, port) ||
        port == 0) {
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
    for (const Sensor& sensor : kSensors)
        pollers.emplace_back(sensor, hub).start();
    log.print(" listening on port %d\n", port);
    serve(listener, signals, log, file, hub);
    ::eventfd_write(hub.ending, 1); // ends an alarm
    pollers.clear();
    log.print(" stopped\n");
}
