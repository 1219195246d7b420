// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "Monitor.h"

/// Holds a monitor through fastLock() and releaseLock() for one scope.
class FastLock {
public:
    explicit FastLock(Monitor& monitor) : m_monitor(monitor) { m_monitor.fastLock(); }
    ~FastLock() { m_monitor.releaseLock(); }

    FastLock(const FastLock&) = delete;
    FastLock& operator=(const FastLock&) = delete;

private:
    Monitor& m_monitor;
};

/// Gives one level of a held monitor up for one scope.
class FastUnlock {
public:
    explicit FastUnlock(Monitor& monitor) : m_monitor(monitor) { m_monitor.releaseLock(); }
    ~FastUnlock() { m_monitor.fastLock(); }

    FastUnlock(const FastUnlock&) = delete;
    FastUnlock& operator=(const FastUnlock&) = delete;

private:
    Monitor& m_monitor;
};
