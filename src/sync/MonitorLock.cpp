// SPDX-License-Identifier: BSD-3-Clause
#include "MonitorLock.h"

#include "Monitor.h"

MonitorLock::MonitorLock(Monitor& monitor) : m_monitor(&monitor), m_released(0)
{}

MonitorLock::~MonitorLock()
{
    if (m_released == 0)
        m_monitor->releaseLock();
}

void MonitorLock::releaseLock()
{
    m_monitor->releaseLock();
    m_released = 1;
}

void MonitorLock::setMonitor(Monitor& monitor)
{
    m_monitor = &monitor;
}
