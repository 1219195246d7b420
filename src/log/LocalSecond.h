#pragma once

#include <ctime>

/// The local time of the second that it was moved to last, as localtime tells it. Asks the C library, which
/// looks at the zone file, once a second or when TZ has another value: that costs more than all the rest of a
/// log line.
class LocalSecond {
public:
    /// Returns whether fields() may have changed.
    bool moveTo(std::time_t second);

    std::time_t second() const { return m_second; }
    const std::tm& fields() const { return m_fields; }

private:
    bool isZone(const char* zone) const;
    void keepZone(const char* zone);

    bool m_isKept = false; // not before the first call, nor where TZ is too long
    std::time_t m_second = 0;
    std::tm m_fields = {};
    bool m_hasZone = false;
    char m_zone[94] = {}; // the value of TZ
};
