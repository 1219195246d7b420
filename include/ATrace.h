// SPDX-License-Identifier: BSD-3-Clause
#pragma once

/// @file
/// The trace file and the global that a program points at it.

#include "GorvApi.h"
#include "Monitor.h"

#include <cstdarg>
#include <cstdio>

/// A trace file: one line a call, with a millisecond stamp, filtered by a numeric threshold.
///
/// A program creates one trace, points ::gTrace at it and calls Init(). Init(), TraceLog(), Reopen() and
/// Close() are safe from any thread, and lines never mix. The file is emptied at the first attempt to open
/// one in the life of the object and appended to afterwards. Neither copied nor moved.
///
/// A line reads "YYYY/MM/DD HH:MM:SS_mmm MESSAGE", in local time. No line end is added: the format carries
/// its own "\n". A message may have any length and hold zero bytes. One with an argument that can't be
/// formatted ends there, or at a zero byte before; such a line, or one for which memory runs out, has at most
/// 2047 characters. Tracing leaves errno alone, and "%m", which g++ -Wpedantic warns of, shows the caller's.
/// "%n" is best not used: it ends the program in a format that isn't constant, and in any while no descriptor
/// is left.
///
/// Where the file can't be opened, as a FIFO that nobody reads, lines are dropped silently. A full disk may
/// keep a part of one, and so may a full pipe when the thread is cancelled; a signal whose handler was
/// installed without SA_RESTART may lose one that waits for it. Whoever closes or reopens waits, too. Not for
/// signal handlers, nor for the child of a fork() in a process with threads. Whoever holds the lock of any
/// stream, as a write function of fopencookie() does, traces only while no thread is in fflush(nullptr): a
/// line may open a file. Point ::gTrace at a trace before threads trace.
///
/// @code
/// ATrace trace;
/// gTrace = &trace;
/// trace.Init(3, "/var/log/consoled.trace");
/// gTrace->TraceLog(2, "%d clients\n", count);
/// @endcode
///
/// @include examples/reference/ATrace.cpp
/// @verbinclude examples/reference/ATrace.out
class GORV_API ATrace {
public:
    /// A trace that writes nothing until Init().
    ATrace();

    /// Closes the file. No other thread may be tracing; point ::gTrace elsewhere first.
    virtual ~ATrace();

    ATrace(const ATrace&) = delete;
    ATrace& operator=(const ATrace&) = delete;

    /// Admit levels up to @p level, and trace into the file at @p fileName, which is copied. A file that is
    /// open stays the destination until Close(). Writes "ATrace::Init: Trace Starting" through ::gTrace if
    /// that is set. Opens nothing itself.
    ///
    /// With @p fileName null only the threshold changes, and "Trace File Name Missing" goes to standard
    /// output. Also when memory runs out, only the threshold changes.
    void Init(int level, char* fileName);
    /// The same for constant names.
    template <typename = void>
    void Init(int level, const char* fileName);

    /// Write one line and flush it if @p level is 0 or not above the threshold, so that a threshold of 0 or
    /// more admits every negative level. Opens the file if it is not open.
    void TraceLog(int level, char* format, ...) GORV_PRINTF(3, 4);
    /// The same for constant formats.
    template <typename = void>
    void TraceLog(int level, const char* format, ...) GORV_PRINTF(3, 4);

    /// Close the file. The next line that passes the threshold opens it again.
    void Close();

    /// Trace into the file at @p fileName, which is copied, from now on, keeping what it holds, while other
    /// threads trace: move the file aside, then call this with its name. A new file has mode 0600. A symbolic
    /// link at the end of the name is refused, and so is a FIFO that nobody reads. Before Init() nothing is
    /// written yet, but the file stays where Init() finds it, and isn't emptied.
    /// @return 0, or -1 with errno when the file can't be opened or the name is null: nothing changes then.
    int Reopen(const char* fileName);

private:
    // Exported: the template of TraceLog() calls it from the host.
    void vTraceLog(const char* format, va_list args) GORV_PRINTF(2, 0);
    GORV_LOCAL bool openFile();
    GORV_LOCAL void replaceFileName(char* name);
    bool admits(int level) const
    {
        return level == 0 || __builtin_expect(level <= __atomic_load_n(&m_level, __ATOMIC_RELAXED), false);
    }

    bool m_disabled; // until an Init() with a name
    char* m_fileName;
    FILE* m_file;
    int m_level;
    bool m_firstOpen;
    Monitor m_monitor;
};

/// The trace that the program uses; null until the program sets it.
extern GORV_API ATrace* gTrace;

/// Does nothing, whatever @p text is.
GORV_API void ShowLastError(char* text);

// The constant forms are templates so that a null pointer, which fits both forms alike, takes the plain one.

template <typename>
void ATrace::Init(int level, const char* fileName)
{
    Init(level, const_cast<char*>(fileName));
}

#ifdef GORV_CHECKS_INLINE
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // checked where it is called

template <typename>
inline GORV_CHECK_INLINE void ATrace::TraceLog(int level, const char* format, ...)
{
    if (admits(level))
        TraceLog(level, const_cast<char*>(format), __builtin_va_arg_pack());
}

#pragma GCC diagnostic pop
#else
template <typename>
void ATrace::TraceLog(int level, const char* format, ...)
{
    if (!admits(level))
        return;
    va_list args;
    va_start(args, format);
    vTraceLog(format, args);
    va_end(args);
}
#endif
