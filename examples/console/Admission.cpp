#include "Admission.h"

#include "AComponentLog.h"

#include <algorithm>
#include <sys/socket.h>

namespace {

using namespace std::chrono_literals;

constexpr std::size_t kStrangers = 128;
constexpr std::size_t kLogins = 16; // at a time
constexpr std::size_t kUsers = 352; // so that the server has room for all of these
constexpr auto kPace = 1s;          // between two logins that are refused,
constexpr int kUnhurried = 10;      // after so many
constexpr auto kReportPeriod = 10s;
constexpr std::size_t kSourcesNamed = 4;
constexpr std::size_t kNameShown = 40;

/// Whoever is on this machine has all of 127.0.0.0/8.
std::string oneAddress(const std::string& address)
{
    return address.starts_with("127.") ? "127.0.0.1" : address;
}

/// A stranger chose the name: it must not look like another part of the line.
std::string quoted(const std::string& name)
{
    std::string text = name.substr(0, kNameShown);
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c < ' ' || c > '~' || c == '"'; }, '?');
    return '"' + text + '"';
}

} // namespace

void Admission::enter(int connection, const std::string& address)
{
    const MonitorLock lock = m_monitor.acquireLock();
    const Guest guest{oneAddress(address), {}};
    const auto all = guests(Phase::Stranger), ofAddress = guests(Phase::Stranger, guest.address);
    if (ofAddress.size() >= kStrangers / 2)
        hangUpOneOf(ofAddress);
    else if (all.size() >= kStrangers)
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
    if (guest->second.phase == Phase::User)
        --s_users;
    else
        ++m_left;
    m_guests.erase(guest);
}

Admission::Turn Admission::beginLogin(int connection, const std::string& user)
{
    const MonitorLock lock = m_monitor.acquireLock();
    const auto now = Clock::now();
    const auto guest = m_guests.find(connection);
    const std::size_t trying = guests(Phase::Trying).size();
    if (guest == m_guests.end() || trying >= kLogins || s_users + trying >= kUsers ||
        guests(Phase::Trying, guest->second.address).size() >= kLogins / 2) {
        ++m_turnedAway;
        return {false, now + kPace};
    }
    guest->second.sources = {"from " + guest->second.address, "as " + quoted(user)};
    auto turn = now;
    for (const std::string& name : guest->second.sources) {
        Source& source = m_sources[name];
        turn = std::max(turn, source.due - kUnhurried * kPace);
        source.due = std::max(source.due, now) + kPace; // taken back unless the login is refused
    }
    guest->second.phase = Phase::Trying;
    return {true, turn};
}

void Admission::endLogin(int connection, bool succeeded)
{
    const MonitorLock lock = m_monitor.acquireLock();
    Guest& guest = m_guests.at(connection);
    guest.phase = succeeded ? Phase::User : Phase::Stranger;
    s_users += succeeded ? 1 : 0;
    settle(guest, !succeeded);
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
    std::erase_if(m_sources, [now](const auto& entry) { return entry.second.due <= now; });
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

/// Allocates nothing for a guest who leaves.
void Admission::settle(const Guest& guest, bool refused)
{
    for (const std::string& name : guest.sources) {
        if (refused)
            ++m_sources[name].refusals;
        else if (const auto source = m_sources.find(name); source != m_sources.end())
            source->second.due -= kPace;
    }
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
