// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "Allowance.h"
#include "Monitor.h"

#include <atomic>
#include <ctime>
#include <map>
#include <random>
#include <string>
#include <vector>

class AComponentLog;

/// Decides who comes in. A connection is a stranger until a login succeeds; then it is a user's, whose place
/// no stranger can take, and costs what the user's Allowance has left.
///
/// There are few places for strangers, and half of them at most for one address. Another one is let in all
/// the same, and one of those before it, by chance, is hung up. Fewer still may try to log in at a time; one
/// more is turned away, a second later. Each login that is refused slows down the later ones from its
/// address, and those with its user name, whether there is such a user or not. A name that succeeded from an
/// address lately is known there: those logins have places and a pace of their own, whoever else guesses at
/// the name, or from the address. All that strangers do is one line a period in the log.
///
/// Safe from any thread. A connection goes by its descriptor, which is open from enter() to leave().
class Admission {
public:
    using Clock = Pace::Clock;

    explicit Admission(AComponentLog& log) : m_log(log) {}

    void enter(int connection, const std::string& address);
    void leave(int connection);

    struct Turn {
        bool isGranted;         ///< False when the login is turned away.
        Clock::time_point time; ///< When to check the password, or to answer.
    };
    Turn beginLogin(int connection, const std::string& user);
    enum class Outcome { Admitted, Refused, Unknown };
    /// Returns the user's allowance, valid until leave(); null unless the user is in.
    Allowance* endLogin(int connection, Outcome outcome, int session);

    /// How many users' connections there are. Waits for nobody.
    static int users() { return s_users; }
    /// Write a line for each of them.
    void listUsers();
    /// Hang up those with this session number.
    void endSession(int session);

    /// Write the line about the strangers when its time has come, or at once.
    void report(bool atOnce);

private:
    enum class Phase { Stranger, Trying, User };
    using Sources = std::vector<std::string>;
    struct Guest {
        std::string address;
        Phase phase = Phase::Stranger;
        std::string user = {}; // of the last login that was begun,
        Sources sources = {};  // and what it counts under
        int session = 0;
        std::time_t since = 0;
    };
    struct Source { // an address, a user name, or both, in the words of the log
        Pace pace{limits::kRefusalsAtOnce, limits::kRefusalPace};
        int refusals = 0; // to be reported
        Clock::time_point knownUntil = {};
    };

    std::vector<int> guests(Phase phase, const std::string& address = "") const;
    bool hasPlaceFor(Guest& guest, const std::string& user) const;
    void settle(const Guest& guest, bool refused);
    Allowance* admit(Guest& guest, int session);
    void hangUpOneOf(const std::vector<int>& strangers);
    std::string mostRefused() const;

    static inline std::atomic<int> s_users = 0;

    AComponentLog& m_log;
    Monitor m_monitor; // guards what follows
    std::map<int, Guest> m_guests;
    std::map<std::string, Source> m_sources;
    std::map<std::string, Allowance> m_allowances; // by user
    std::random_device m_random;
    Clock::time_point m_reported = Clock::now();
    int m_left = 0, m_gaveWay = 0, m_turnedAway = 0; // to be reported
};
