#include "LocalSecond.h"

#include <cstdlib>
#include <cstring>
#include <string_view>
#ifdef __SANITIZE_THREAD__
#include <mutex>
#endif

namespace {

/// The C library guards its time zone itself, with a lock that ThreadSanitizer cannot see.
class ZoneLock {
#ifdef __SANITIZE_THREAD__
    static inline constinit std::mutex s_mutex;
    const std::lock_guard<std::mutex> m_lock{s_mutex};
#endif
};

} // namespace

void LocalSecond::followZone()
{
    const char* const zone = std::getenv("TZ");
    const std::time_t now = std::time(nullptr);
    if (m_isKept && now == m_zoneSecond && isZone(zone))
        return;
    keepZone(zone);
    m_zoneSecond = now;
    m_isConverted = false;
    [[maybe_unused]] const ZoneLock lock{};
    tzset(); // localtime_r alone need not notice that TZ or the zone file changed
}

bool LocalSecond::moveTo(std::time_t second)
{
    if (m_isConverted && second == m_second)
        return false;
    m_second = second;
    m_isConverted = true;
    [[maybe_unused]] const ZoneLock lock{};
    localtime_r(&second, &m_fields);
    return true;
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
