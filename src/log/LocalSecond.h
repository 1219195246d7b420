#pragma once

#include <ctime>

/// The local time of the second that it was moved to last, as localtime tells it. Asks the C library once a
/// second or when TZ has another value: that costs more than all the rest of a log line.
class LocalSecond {
public:
    /// Take over what TZ and the zone file say by now. May open that file.
    void followZone();

    /// Opens no file. Returns whether fields() may have changed.
    bool moveTo(std::time_t second);

    const std::tm& fields() const { return m_fields; }

private:
    bool isZone(const char* zone) const;
    void keepZone(const char* zone);

    bool m_isKept = false;      // the zone; not before the first call, nor where TZ is too long
    bool m_isConverted = false; // the second, in this zone
    std::time_t m_zoneSecond = 0;
    std::time_t m_second = 0;
    std::tm m_fields = {};
    bool m_hasZone = false;
    char m_zone[94] = {}; // the value of TZ
};
