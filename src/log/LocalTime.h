#pragma once

#include <ctime>

/// What a conversion to local time depended on: conversions under equal keys give the same fields.
struct LocalTimeKey {
    std::time_t second = 0;
    long offset = 0;
    int daylight = 0;
    const char* standardName = nullptr;
    const char* daylightName = nullptr;

    bool operator==(const LocalTimeKey&) const = default;
};

/// The key of @p second in the time zone that is set now. Costs no system call.
LocalTimeKey localTimeKey(std::time_t second);

/// Convert @p second to local time after a fresh look at TZ and the zone file. Take the key of the result
/// afterwards: the conversion itself may set the zone.
std::tm toLocalTime(std::time_t second);
