// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "GorvApi.h"

#include <cstdarg>
#include <string>
#include <vector>

class ALog;

/// The handle through which one object writes its messages to a log that the program owns.
///
/// Every message goes to the base log and is dropped while there is none. Component logs form a tree along
/// which the base log is handed down; messages never travel along it, and neither the component's name nor a
/// level is written: a line begins with the base log's name, and the component's is for whoever looks at the
/// object in a debugger. Lines stay in the stream's buffer until something flushes it.
///
/// Message operations are safe from any thread, also while the tree changes (setBaseLog(), addChildLog(),
/// removeChildLog()). Changes of one tree are not synchronised with each other. Base log and children stay
/// their owners'; a component is removed from every parent before it is destroyed, and the base log outlives
/// it.
///
/// @include examples/reference/AComponentLog.cpp
/// @verbinclude examples/reference/AComponentLog.out
class GORV_API AComponentLog {
public:
    static const int INFO = 1;    ///< The same level as ALog::INFO.
    static const int WARNING = 2; ///< The same level as ALog::WARNING.
    static const int ERROR = 3;   ///< The same level as ALog::ERROR.
    static const int TRACE = 4;   ///< The same level as ALog::TRACE.

    /// No name, no base log, enabled.
    AComponentLog();
    /// No base log, enabled. @p name is copied; null counts as "".
    explicit AComponentLog(const char* name);
    /// Enabled and writing to @p baseLog. @p name is copied; null counts as "".
    AComponentLog(const char* name, ALog& baseLog);

    /// Touches neither children nor parents nor the base log.
    virtual ~AComponentLog();

    AComponentLog(const AComponentLog&) = delete;
    AComponentLog& operator=(const AComponentLog&) = delete;

    /// Make @p log the base log of this component and of everything below it.
    void setBaseLog(ALog& log);

    /// Append @p child; it and everything below it take this component's base log, if there is one. A child
    /// may be added more than once, and is then visited as often, in a tree no deeper than the stack bears. A
    /// child that would close a cycle is refused without effect. Throws std::bad_alloc when memory runs out,
    /// without effect.
    void addChildLog(AComponentLog& child);

    /// Remove the first entry for @p child, which keeps its base log. Does nothing if it isn't a child.
    void removeChildLog(AComponentLog& child);

    /// Returns the base log, or null.
    ALog* getBaseLog();
    /// Returns exactly what getBaseLog() returns.
    ALog* getParentLog();

    /// Choose whether this component writes and flushes. On in a new component. Safe from any thread.
    void setEnabled(bool enabled);
    /// Returns whether this component writes.
    bool getEnabled();

    /// Write one line through the base log.
    void print(const char* format, ...) GORV_PRINTF(2, 3);
    /// The same; @p level changes nothing.
    void print(int level, const char* format, ...) GORV_PRINTF(3, 4);

    /// Write one line through the base log.
    void vprint(const char* format, va_list args) GORV_PRINTF(2, 0);
    /// The same; @p level changes nothing.
    void vprint(int level, const char* format, va_list args) GORV_PRINTF(3, 0);

    /// Write one line at level INFO.
    void logInfo(const char* format, ...) GORV_PRINTF(2, 3);
    /// Write one line at level WARNING.
    void logWarning(const char* format, ...) GORV_PRINTF(2, 3);
    /// Write one line at level ERROR.
    void logError(const char* format, ...) GORV_PRINTF(2, 3);
    /// Write one line at level TRACE.
    void logTrace(const char* format, ...) GORV_PRINTF(2, 3);

    /// Flush the base log.
    void flush();

private:
    bool isActive() const
    {
        return __atomic_load_n(&m_baseLog, __ATOMIC_RELAXED) != nullptr &&
               __atomic_load_n(&m_enabled, __ATOMIC_RELAXED);
    }
    GORV_LOCAL ALog* activeLog();
    GORV_LOCAL bool reaches(const AComponentLog& target) const;

    ALog* m_baseLog; // not owned
    bool m_enabled;
    std::string m_name;
    std::vector<AComponentLog*> m_children; // not owned
};

#ifdef GORV_CHECKS_INLINE
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // checked where it is called

extern inline GORV_CHECK_INLINE void AComponentLog::print(const char* format, ...)
{
    if (isActive())
        logInfo(format, __builtin_va_arg_pack());
}

#pragma GCC diagnostic pop
#endif
