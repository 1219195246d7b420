// SPDX-License-Identifier: BSD-3-Clause
#include "AComponentLog.h"

#include "ALog.h"
#include "base/SharedField.h"

#include <algorithm>

const int AComponentLog::INFO;
const int AComponentLog::WARNING;
const int AComponentLog::ERROR;
const int AComponentLog::TRACE;

AComponentLog::AComponentLog() : AComponentLog(nullptr)
{}

AComponentLog::AComponentLog(const char* name)
    : m_baseLog(nullptr), m_enabled(true), m_name(name == nullptr ? "" : name)
{}

AComponentLog::AComponentLog(const char* name, ALog& baseLog) : AComponentLog(name)
{
    m_baseLog = &baseLog;
}

AComponentLog::~AComponentLog() = default;

void AComponentLog::setBaseLog(ALog& log)
{
    writeShared(m_baseLog, &log);
    for (AComponentLog* child : m_children)
        child->setBaseLog(log);
}

void AComponentLog::addChildLog(AComponentLog& child)
{
    if (child.reaches(*this))
        return;
    m_children.push_back(&child);
    if (m_baseLog != nullptr)
        child.setBaseLog(*m_baseLog);
}

void AComponentLog::removeChildLog(AComponentLog& child)
{
    const auto entry = std::find(m_children.begin(), m_children.end(), &child);
    if (entry != m_children.end())
        m_children.erase(entry);
}

ALog* AComponentLog::getBaseLog()
{
    return readShared(m_baseLog);
}

ALog* AComponentLog::getParentLog()
{
    return readShared(m_baseLog);
}

void AComponentLog::setEnabled(bool enabled)
{
    writeShared(m_enabled, enabled);
}

bool AComponentLog::getEnabled()
{
    return readShared(m_enabled);
}

void AComponentLog::print(const char* format, ...)
{
    ALog* log = activeLog();
    if (log == nullptr)
        return;
    va_list args;
    va_start(args, format);
    log->vprint(format, args);
    va_end(args);
}

void AComponentLog::print(int level, const char* format, ...)
{
    ALog* log = activeLog();
    if (log == nullptr)
        return;
    va_list args;
    va_start(args, format);
    log->vprint(level, format, args);
    va_end(args);
}

void AComponentLog::vprint(const char* format, va_list args)
{
    if (ALog* log = activeLog())
        log->vprint(format, args);
}

void AComponentLog::vprint(int level, const char* format, va_list args)
{
    if (ALog* log = activeLog())
        log->vprint(level, format, args);
}

void AComponentLog::logInfo(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vprint(INFO, format, args);
    va_end(args);
}

void AComponentLog::logWarning(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vprint(WARNING, format, args);
    va_end(args);
}

void AComponentLog::logError(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vprint(ERROR, format, args);
    va_end(args);
}

void AComponentLog::logTrace(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vprint(TRACE, format, args);
    va_end(args);
}

void AComponentLog::flush()
{
    if (ALog* log = activeLog())
        log->flush();
}

ALog* AComponentLog::activeLog()
{
    ALog* const log = readShared(m_baseLog);
    return log != nullptr && readShared(m_enabled) ? log : nullptr;
}

/// Whether @p target is this component or one below it.
bool AComponentLog::reaches(const AComponentLog& target) const
{
    for (const AComponentLog* child : m_children) {
        if (child->reaches(target))
            return true;
    }
    return this == &target;
}
