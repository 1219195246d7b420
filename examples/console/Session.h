// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "AComponentLog.h"
#include "ASocket.h"
#include "AThread.h"
#include "Admission.h"
#include "Configuration.h"
#include "Descriptor.h"
#include "PAMHelper.h"
#include "Programs.h"
#include "Protocol.h"

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// What all sessions of the daemon share. Outlives every session.
struct Services {
    std::string pamService;
    int idleSeconds = 0;
    AComponentLog& log; ///< Its base log is that of each connection.
    Admission& admission;
    Configuration& configuration;
    Programs& programs;
    std::function<void()> reopenLogs;
    std::function<void()> sessionEnded; ///< Called on the session's thread as its last act.
};

/// Serves one connection on a thread of its own: at most one login, and whatever the user asks for.
///
/// The daemon's main thread makes it, starts it, and destroys it once it is over(). It ends by itself when
/// the client logs out, vanishes or breaks the protocol; hangUp() ends it from outside.
class Session : public AThread {
public:
    /// Takes over the accepted @p descriptor.
    Session(Descriptor descriptor, sockaddr_in peer, Services& services);
    ~Session() override;

    void run() override;

    /// Make the session's reading and writing end. From any thread.
    void hangUp();
    /// Whether the client has owed a request, or its login, for longer than it may idle.
    bool isOverdue() const;
    /// Whether nothing runs any more. Then join() returns soon.
    bool isOver() const;

private:
    using Login = std::unique_ptr<PAMHelper, PAMHelper::Dispose>;
    using Clock = Admission::Clock;
    using Fields = std::vector<std::string_view>;

    struct Answer {
        protocol::Result result;
        std::string text;
        bool goesOn = true; ///< False when the connection ends after this answer.
    };

    bool serveRequest();
    std::optional<Answer> receiveAndServe();
    bool wait(short events, Clock::time_point end);
    Answer serve(short operation, std::string_view bytes);
    Answer dispatch(short operation, const Fields& fields);

    Answer logIn(std::string_view user, std::string_view password);
    Admission::Outcome check(PAMHelper& login, std::string name, std::string_view password);
    Answer refuse(Clock::time_point turn, Admission::Outcome outcome);
    Answer who();
    Answer get(std::string_view name);
    Answer set(std::string_view name, std::string_view value);
    Answer raise(std::string_view event, std::string_view data);
    Answer call(std::string_view function, std::string_view argument);
    Answer run(std::string_view program);
    Answer changePassword(std::string_view current, std::string_view next);
    Answer logOut();

    void expectClient();
    Answer print(const char* verb, std::string_view name, Answer answer);
    void print(const char* format, ...) GORV_PRINTF(2, 3);

    Services& m_services;
    ASocket m_socket;
    const std::string m_remote;
    const std::string m_interface;
    const std::string m_label; // address and port: no two connections share it
    const Clock::time_point m_connected = Clock::now();
    AComponentLog m_log;
    Login m_login;
    Allowance* m_allowance = nullptr; // while there is a login
    int m_refusals = 0;
    std::array<unsigned char, protocol::kMaxBytes> m_bytes{};
    std::atomic<Clock::time_point> m_deadline = Clock::time_point::max();
    std::atomic<bool> m_finished = false;
};
