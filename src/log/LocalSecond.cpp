// SPDX-License-Identifier: BSD-3-Clause
#include "LocalSecond.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <pthread.h>
#include <string_view>

namespace {

/// Held round all that takes the C library's own lock of the time zone, and over each fork(): the child has
/// only the thread that forked, so it would wait for ever for a zone lock that another one had.
class ZoneLock {
public:
    ZoneLock()
    {
        s_isHeldHere = true; // first: a signal handler that forks in between must not wait for its own thread
        s_mutex.lock();
    }
    ~ZoneLock()
    {
        s_mutex.unlock();
        s_isHeldHere = false;
    }

    ZoneLock(const ZoneLock&) = delete;
    ZoneLock& operator=(const ZoneLock&) = delete;

    static void holdOverFork()
    {
        if (!s_isHeldHere)
            s_mutex.lock();
    }
    static void letGoAfterFork()
    {
        if (!s_isHeldHere)
            s_mutex.unlock();
    }

private:
    static inline constinit std::mutex s_mutex;
    static inline constinit thread_local bool s_isHeldHere = false;
};

/// When the library is loaded, and not with the first line: handlers run in reverse, so this innermost of
/// locks is taken after those that a host holds over its forks, under which it may log.
[[gnu::constructor]] void holdZoneOverForks()
{
    pthread_atfork(ZoneLock::holdOverFork, ZoneLock::letGoAfterFork, ZoneLock::letGoAfterFork);
}

} // namespace

bool LocalSecond::moveTo(std::time_t second)
{
    const char* const zone = std::getenv("TZ");
    if (m_isKept && second == m_second && isZone(zone))
        return false;
    keepZone(zone);
    m_second = second;
    const ZoneLock lock;
    tzset(); // localtime_r alone need not notice that TZ or the zone file changed
    localtime_r(&second, &m_fields);
    return true;
}

std::size_t LocalSecond::format(char* text, std::size_t size) const
{
    const ZoneLock lock; // a time locale may show the zone
    return std::strftime(text, size, "%m/%e/%Y %X ", &m_fields);
}

bool LocalSecond::isZone(const char* zone) const
{
    return zone == nullptr ? !m_hasZone : m_hasZone && std::strcmp(zone, m_zone) == 0;
}

void LocalSecond::keepZone(const char* zone)
{
    m_hasZone = zone != nullptr;
    const std::string_view text = m_hasZone ? zone : "";
    m_isKept = text.size() < sizeof m_zone;
    m_zone[text.copy(m_zone, sizeof m_zone - 1)] = '\0';
}
