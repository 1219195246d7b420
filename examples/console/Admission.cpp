// SPDX-License-Identifier: BSD-3-Clause
#include "Admission.h"

#include "AComponentLog.h"
#include "Protocol.h"

#include <algorithm>
#include <ctime>
#include <sys/socket.h>

namespace {

using namespace std::chrono_literals;

constexpr auto kTurnedAwayTime = 1s;
constexpr auto kReportPeriod = 10s;
constexpr std::size_t kSourcesNamed = 4;
constexpr std::size_t kNameShown = 40;

/// Whoever is on this machine has all of 127.0.0.0/8.
std::string oneAddress(const std::string& address)
{
    return address.starts_with("127.") ? "127.0.0.1" : address;
}

/// A stranger chose the name.
std::string inWords(const std::string& user)
{
    return "as " + protocol::quoted(std::string_view(user).substr(0, kNameShown));
}

std::string textOf(std::time_t time)
{
    std::tm local{};
    char text[32];
    const std::size_t length =
        std::strftime(text, sizeof text, "%m/%d/%Y %H:%M:%S", ::localtime_r(&time, &local));
    return {text, length};
}

} // namespace

void Admission::enter(int connection, const std::string& address)
{
    const MonitorLock lock = m_monitor.acquireLock();
    const Guest guest{oneAddress(address)};
    const auto all = guests(Phase::Stranger), ofAddress = guests(Phase::Stranger, guest.address);
    if (ofAddress.size() >= limits::kStrangers / 2)
        hangUpOneOf(ofAddress);
    else if (all.size() >= limits::kStrangers)
        hangUpOneOf(all);
    m_guests.insert_or_assign(connection, guest);
}

void Admission::leave(int connection)
{
    const MonitorLock lock = m_monitor.acquireLock();
    const auto guest = m_guests.find(connection);
    if (guest == m_guests.end())
        return;
    if (guest->second.phase == Phase::Trying) // it has gone before its turn
        settle(guest->second, false);
    if (guest->second.phase == Phase::User) {
        m_allowances.at(guest->second.user).leaveSession();
        --s_users;
    } else {
        ++m_left;
    }
    m_guests.erase(guest);
}

Admission::Turn Admission::beginLogin(int connection, const std::string& user)
{
    const MonitorLock lock = m_monitor.acquireLock();
    const auto guest = m_guests.find(connection);
    if (guest == m_guests.end() || !hasPlaceFor(guest->second, user)) {
        ++m_turnedAway;
        return {false, Clock::now() + kTurnedAwayTime};
    }
    guest->second.user = user;
    const auto allowance = m_allowances.find(user);
    auto turn = allowance != m_allowances.end() ? allowance->second.nextDeed() : Clock::now();
    for (const std::string& name : guest->second.sources) {
        Pace& pace = m_sources[name].pace;
        turn = std::max(turn, pace.next());
        pace.take(); // given back unless the login is refused
    }
    guest->second.phase = Phase::Trying;
    return {true, turn};
}

Allowance* Admission::endLogin(int connection, Outcome outcome, int session)
{
    const MonitorLock lock = m_monitor.acquireLock();
    Guest& guest = m_guests.at(connection);
    guest.phase = Phase::Stranger;
    if (outcome != Outcome::Unknown) // else it keeps what it took, and nobody is blamed
        settle(guest, outcome == Outcome::Refused);
    return outcome == Outcome::Admitted ? admit(guest, session) : nullptr;
}

void Admission::listUsers()
{
    const MonitorLock lock = m_monitor.acquireLock();
    m_log.print(" %d connections of users\n", users());
    for (const int connection : guests(Phase::User)) {
        const Guest& guest = m_guests.at(connection);
        m_log.print(" session %d: %s from %s since %s\n", guest.session, protocol::quoted(guest.user).c_str(),
                    guest.address.c_str(), textOf(guest.since).c_str());
    }
    m_log.flush();
}

void Admission::endSession(int session)
{
    const MonitorLock lock = m_monitor.acquireLock();
    int ended = 0;
    for (const int connection : guests(Phase::User)) {
        if (m_guests.at(connection).session == session)
            ended += ::shutdown(connection, SHUT_RDWR) == 0 ? 1 : 0;
    }
    m_log.print(" session %d: %s\n", session, ended > 0 ? "ended from outside" : "there is none");
    m_log.flush();
}

void Admission::report(bool atOnce)
{
    const MonitorLock lock = m_monitor.acquireLock();
    const auto now = Clock::now();
    if (!atOnce && now < m_reported + kReportPeriod)
        return;
    m_reported = now;
    const std::string refused = mostRefused();
    if (!refused.empty() || m_left + m_gaveWay + m_turnedAway > 0) {
        m_log.print(" without a login: %d left, %d gave way, %d turned away%s\n", m_left, m_gaveWay,
                    m_turnedAway, refused.c_str());
        m_log.flush();
    }
    m_left = m_gaveWay = m_turnedAway = 0;
    std::erase_if(m_sources, [now](const auto& entry) {
        return entry.second.pace.isUnused() && entry.second.knownUntil <= now;
    });
    std::erase_if(m_allowances, [](const auto& entry) { return entry.second.isUnused(); });
    for (auto& [name, source] : m_sources)
        source.refusals = 0;
}

/// The connections in @p phase, all or those of one address. The monitor is held, here and below.
std::vector<int> Admission::guests(Phase phase, const std::string& address) const
{
    std::vector<int> found;
    for (const auto& [connection, guest] : m_guests) {
        if (guest.phase == phase && (address.empty() || guest.address == address))
            found.push_back(connection);
    }
    return found;
}

/// Also chooses what the login counts under.
bool Admission::hasPlaceFor(Guest& guest, const std::string& user) const
{
    const std::string asUser = inWords(user), from = "from " + guest.address;
    const auto known = m_sources.find(asUser + ' ' + from);
    const bool isKnown = known != m_sources.end() && known->second.knownUntil > Clock::now();
    guest.sources = isKnown ? Sources{known->first} : Sources{from, asUser};
    std::size_t trying = 0, alike = 0, unknown = 0;
    for (const int other : guests(Phase::Trying)) {
        const Sources& sources = m_guests.at(other).sources;
        ++trying;
        unknown += sources.size() > 1 ? 1 : 0;
        alike += sources[0] == guest.sources[0] ? 1 : 0;
    }
    const bool hasPlace =
        isKnown ? alike < limits::kKnownLogins : alike < limits::kLogins / 2 && unknown < limits::kLogins;
    return hasPlace && s_users + trying < limits::kUsers;
}

/// Allocates nothing for a guest who leaves.
void Admission::settle(const Guest& guest, bool refused)
{
    for (const std::string& name : guest.sources) {
        if (refused)
            ++m_sources[name].refusals;
        else if (const auto source = m_sources.find(name); source != m_sources.end())
            source->second.pace.giveBack();
    }
}

/// Returns null when the user has no session left.
Allowance* Admission::admit(Guest& guest, int session)
{
    Allowance& allowance = m_allowances[guest.user];
    allowance.takeDeed();
    if (!allowance.takeSession()) {
        ++m_turnedAway;
        return nullptr;
    }
    m_sources[inWords(guest.user) + " from " + guest.address].knownUntil = Clock::now() + limits::kKnownTime;
    guest.phase = Phase::User;
    guest.session = session;
    guest.since = std::time(nullptr);
    ++s_users;
    return &allowance;
}

void Admission::hangUpOneOf(const std::vector<int>& strangers)
{
    std::uniform_int_distribution<std::size_t> any(0, strangers.size() - 1);
    const int chosen = strangers[any(m_random)];
    ::shutdown(chosen, SHUT_RDWR);
    m_guests.erase(chosen);
    ++m_gaveWay;
}

/// How many logins were refused, and to whom most of them.
std::string Admission::mostRefused() const
{
    std::vector<std::pair<int, std::string>> counts;
    for (const auto& [name, source] : m_sources) {
        if (source.refusals > 0)
            counts.emplace_back(source.refusals, name);
    }
    const std::size_t named = std::min(counts.size(), kSourcesNamed);
    std::partial_sort(counts.begin(), counts.begin() + static_cast<std::ptrdiff_t>(named), counts.end(),
                      std::greater<>());
    std::string text;
    for (std::size_t i = 0; i < named; ++i)
        text += (i == 0 ? "; refused " : ", ") + std::to_string(counts[i].first) + " " + counts[i].second;
    return text;
}
