#pragma once

#include "Monitor.h"

#include <array>
#include <atomic>
#include <chrono>
#include <map>
#include <random>
#include <string>
#include <vector>

class AComponentLog;

/// Decides who comes in. A connection is a stranger until a login succeeds; then it is a user, whose place no
/// stranger can take.
///
/// There are few places for strangers, and half of them at most for one address. Another one is let in all
/// the same, and one of those before it, by chance, is hung up. Fewer still may try to log in at a time; one
/// more is turned away, a second later. Each login that is refused slows down the later ones from its
/// address, and those with its user name, whether there is such a user or not. All that strangers do is one
/// line a period in the log.
///
/// Safe from any thread. A connection goes by its descriptor, which is open from enter() to leave().
class Admission {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr int kStrangerSeconds = 20; ///< How long a connection may go without a login.

    explicit Admission(AComponentLog& log) : m_log(log) {}

    void enter(int connection, const std::string& address);
    void leave(int connection);

    struct Turn {
        bool isGranted;         ///< False when the login is turned away.
        Clock::time_point time; ///< When to check the password, or to answer.
    };
    Turn beginLogin(int connection, const std::string& user);
    void endLogin(int connection, bool succeeded);

    /// How many users there are. Waits for nobody.
    static int users() { return s_users; }

    /// Write the line about the strangers when its time has come, or at once.
    void report(bool atOnce);

private:
    enum class Phase { Stranger, Trying, User };
    struct Guest {
        std::string address;
        std::array<std::string, 2> sources; // of the last login that was begun
        Phase phase = Phase::Stranger;
    };
    struct Source { // an address or a user name, in the words of the log
        Clock::time_point due;
        int refusals = 0; // to be reported
    };

    std::vector<int> guests(Phase phase, const std::string& address = "") const;
    void settle(const Guest& guest, bool refused);
    void hangUpOneOf(const std::vector<int>& strangers);
    std::string mostRefused() const;

    static inline std::atomic<int> s_users = 0;

    AComponentLog& m_log;
    Monitor m_monitor; // guards what follows
    std::map<int, Guest> m_guests;
    std::map<std::string, Source> m_sources;
    std::random_device m_random;
    Clock::time_point m_reported = Clock::now();
    int m_left = 0, m_gaveWay = 0, m_turnedAway = 0; // to be reported
};
