// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <ctime>

/// The local time of the second that it was moved to last, as localtime tells it. Asks the C library once a
/// second or when TZ has another value: that costs more than all the rest of a log line.
///
/// May open the zone file, and so waits for threads that may be waiting for a stream: not for a thread that
/// has one of ours.
class LocalSecond {
public:
    /// By what TZ and the zone file say now. Returns whether fields() may have changed.
    bool moveTo(std::time_t second);

    const std::tm& fields() const { return m_fields; }

    /// Write them as "%m/%e/%Y %X ", by the host's time locale. Returns the length.
    std::size_t format(char* text, std::size_t size) const;

private:
    bool isZone(const char* zone) const;
    void keepZone(const char* zone);

    bool m_isKept = false; // not before the first call, nor where TZ is too long
    bool m_hasZone = false;
    char m_zone[94] = {}; // the value of TZ
    std::time_t m_second = 0;
    std::tm m_fields = {};
};
