#include "LocalSecond.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>

namespace {

// The C library guards its time zone with a lock of its own, which race detectors cannot see. Once a second
// ours costs nothing, and they have nothing to report.
constinit std::mutex s_zoneMutex;

} // namespace

bool LocalSecond::moveTo(std::time_t second)
{
    const char* const zone = std::getenv("TZ");
    if (m_isKept && second == m_second && isZone(zone))
        return false;
    m_second = second;
    keepZone(zone);
    const std::lock_guard lock(s_zoneMutex);
    tzset(); // localtime_r alone need not notice that TZ or the zone file changed
    localtime_r(&second, &m_fields);
    return true;
}

std::size_t LocalSecond::writeTo(char* text, std::size_t size, const char* format) const
{
    const std::lock_guard lock(s_zoneMutex); // strftime sets the zone as well
    return std::strftime(text, size, format, &m_fields);
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
