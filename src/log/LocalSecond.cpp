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

bool LocalSecond::moveTo(std::time_t second)
{
    const char* const zone = std::getenv("TZ");
    if (m_isKept && second == m_second && isZone(zone))
        return false;
    keepZone(zone);
    m_second = second;
    [[maybe_unused]] const ZoneLock lock{};
    tzset(); // localtime_r alone need not notice that TZ or the zone file changed
    localtime_r(&second, &m_fields);
    return true;
}

std::size_t LocalSecond::format(char* text, std::size_t size) const
{
    [[maybe_unused]] const ZoneLock lock{}; // a time locale may show the zone
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
