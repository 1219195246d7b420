#pragma once

#include <cstddef>
#include <ctime>

/// The local time of the second that it was moved to last. Looks at TZ and the zone file once a second only,
/// which costs more than all the rest of a log line, yet sees at once when the host sets another time zone.
class LocalSecond {
public:
    /// Returns whether fields() changed.
    bool moveTo(std::time_t second);

    const std::tm& fields() const { return m_fields; }

    /// Write the date, and the time in the host's time locale, each with a blank after it. Returns the length
    /// of the text, 0 if it does not fit.
    std::size_t writeTo(char* text, std::size_t size) const;

private:
    std::time_t m_second = 0;
    std::tm m_fields = {};
};
