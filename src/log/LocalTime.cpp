#include "LocalTime.h"

#include <mutex>

namespace {

// The C library guards its time zone with a lock of its own, which race detectors cannot see. Once a second
// ours costs nothing, and they have nothing to report.
constinit std::mutex s_zoneMutex;

void refreshZone()
{
    const std::lock_guard lock(s_zoneMutex);
    tzset(); // localtime_r alone need not notice that TZ or the zone file changed
}

bool areEqual(const std::tm& one, const std::tm& other)
{
    return one.tm_sec == other.tm_sec && one.tm_min == other.tm_min && one.tm_hour == other.tm_hour &&
           one.tm_mday == other.tm_mday && one.tm_mon == other.tm_mon && one.tm_year == other.tm_year &&
           one.tm_gmtoff == other.tm_gmtoff && one.tm_zone == other.tm_zone;
}

} // namespace

bool LocalSecond::moveTo(std::time_t second)
{
    if (second != m_second)
        refreshZone();
    m_second = second;
    std::tm fields;
    localtime_r(&second, &fields);
    if (areEqual(fields, m_fields))
        return false;
    m_fields = fields;
    return true;
}

std::size_t LocalSecond::writeTo(char* text, std::size_t size) const
{
    const std::lock_guard lock(s_zoneMutex); // strftime sets the zone as well
    return std::strftime(text, size, "%m/%e/%Y %X ", &m_fields);
}
