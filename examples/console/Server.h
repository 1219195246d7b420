// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "Descriptor.h"
#include "Session.h"

#include <list>
#include <memory>

/// Accepts connections on loopback, gives each a session on its own thread, and buries sessions that are
/// over. Everything but stop() belongs to the main thread.
class Server {
public:
    explicit Server(Services& services);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Listen on @p port of 127.0.0.1; 0 takes a free one. Returns the port, or -1.
    int listen(int port);
    /// Serve until stop(), then end every session. Returns false when one didn't end in time: it runs on, and
    /// this object must stay.
    bool serve();

    /// Make serve() return. Async-signal-safe.
    void stop();
    /// Make serve() reopen the logs. Async-signal-safe.
    void reopenLogs();
    /// Make serve() tell the log who is in. Async-signal-safe.
    void listUsers();
    /// Make serve() end the session of that number. Async-signal-safe.
    void endSession(int session);

private:
    bool waitForClient(std::chrono::milliseconds time);
    bool endSessions();
    void wake();
    void acceptSome();
    bool acceptOne();
    void beginSession(Descriptor descriptor, const sockaddr_in& peer);
    void refuse(int descriptor);
    void refuseWithSpare();
    void burySessions();

    Services& m_services;
    Descriptor m_listener;
    Descriptor m_wake;  // an event; a pipe would be kept by the programs that are started
    Descriptor m_spare; // given up to refuse a client when no descriptor is left
    std::list<std::unique_ptr<Session>> m_sessions;
    std::atomic<bool> m_stopRequested = false;
    std::atomic<bool> m_reopenRequested = false;
    std::atomic<bool> m_listRequested = false;
    std::atomic<int> m_endRequested = 0;
};
