// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "GorvApi.h"
#include "Monitor.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>

class KeptErrno;
class StreamLocks;

/// A text log: one line a call to one stdio stream, each line with an optional date-time stamp, the log's
/// name and a printf-style message. Levels are accepted and change nothing.
///
/// The program creates the log, hands it by reference to the objects that report, and lets it outlive them.
/// Printing is safe from any thread, and lines never mix; set a log up before threads share it. Two logs
/// never write to one path: neither knows where the other's lines end. Not for signal handlers, nor for the
/// child of a fork() in a process with threads: another thread may have held the log's lock.
///
/// A line reads "MM/DD/YYYY HH:MM:SS NAME -MESSAGE": local time as TZ says, day padded with a blank, the time
/// of day in the form of the host's time locale. The log adds no line end: the format carries its own "\n". A
/// line has at most 2047 characters and ends at a zero byte; the rest is cut off. So is, as in an Exception,
/// what follows an argument that can't be formatted. Printing leaves errno alone, and "%m", which
/// g++ -Wpedantic warns of, shows the caller's.
///
/// The line and its flush are under the stream's own lock (flockfile()), which a program may hold around
/// several prints to keep other lines out; with echo, together with standard output's or not at all. Whoever
/// holds the lock of any stream, as a write function of fopencookie() does, prints only while no thread is in
/// fflush(nullptr): a line may open the time zone's file.
///
/// A stream that fails, on a full disk for instance, may keep a part of a line, which the next one continues.
/// A signal whose handler was installed without SA_RESTART may lose a line that waits for a full pipe; a
/// cancellation there may leave a part of what is buffered, which the next flush then repeats. Whoever
/// reopens waits for such a line, too. Lines to a stream of wide orientation vanish, echoed ones too. "%n" is
/// best not used: it ends the program in a format that isn't constant, and in any while no descriptor is
/// left.
///
/// @code
/// ALog log("consoled", stderr);
/// log.print("listening on port %d\n", port);
/// @endcode
///
/// @include examples/reference/ALog.cpp
/// @verbinclude examples/reference/ALog.out
class GORV_API ALog {
public:
    static const int INFO = 1;    ///< Level of progress lines.
    static const int WARNING = 2; ///< Level of warnings.
    static const int ERROR = 3;   ///< Level of failures.
    static const int TRACE = 4;   ///< Level of debugging lines.

    /// A log that is switched off and has no stream. @p name is copied; null counts as "".
    explicit ALog(const char* name);

    /// A log that writes to @p file, which stays the caller's and is never closed here. With @p file null the
    /// first line opens "debug.log" in the working directory, emptying it. @p name is copied; null counts as
    /// "".
    ALog(const char* name, FILE* file);

    /// Neither flushes nor closes the stream, not even one that the log opened.
    virtual ~ALog();

    ALog(const ALog&) = delete;
    ALog& operator=(const ALog&) = delete;

    /// Write to the file at @p path from now on, emptying it. The previous stream is closed if the log opened
    /// it and left alone if the caller handed it in. Does not switch the log on. No other thread may print or
    /// flush meanwhile.
    /// @return 0, or -1 when the file can't be opened: then the next line opens "debug.log", emptying it.
    int setOutputFile(const char* path);

    /// Write to the file at @p path from now on, keeping what it holds, while other threads print and flush:
    /// move the file aside, then call this with its name. A new file has mode 0600. A symbolic link at the
    /// end of the path is refused, and so is a FIFO that nobody reads. The stream that the log opened keeps
    /// its descriptor: a program that closes descriptors wholesale spares it. The previous stream is treated
    /// as by setOutputFile(), but prints under way may still use a stream that the caller handed in. Does not
    /// switch the log on.
    /// @return 0, or -1 with errno when the file can't be opened or @p path is null: lines then go where they
    /// went before.
    int reopenOutputFile(const char* path);

    /// Choose whether the log writes anything at all. Safe from any thread.
    void setEnabled(bool enabled);
    /// Returns whether the log writes.
    bool getEnabled();

    /// Choose whether lines start with the date and time. On in a new log.
    void setShowTimestamp(bool show);
    /// Returns whether lines start with the date and time.
    bool getShowTimestamp();

    /// Choose whether each line also goes to standard output, which is flushed. Off in a new log.
    void setEchoToConsole(bool echo);
    /// Returns whether each line also goes to standard output.
    bool getEchoToConsole();

    /// Write one line and flush the stream. Nothing is reported: where the file can't be opened the line is
    /// dropped.
    void print(const char* format, ...) GORV_PRINTF(2, 3);
    /// The same; @p level changes nothing.
    void print(int level, const char* format, ...) GORV_PRINTF(3, 4);

    /// Write one line and leave it in the stream's buffer.
    void vprint(const char* format, va_list args) GORV_PRINTF(2, 0);
    /// The same; @p level changes nothing.
    void vprint(int level, const char* format, va_list args) GORV_PRINTF(3, 0);

    /// Flush the stream, and standard output too while lines are echoed to it.
    void flush();

private:
    GORV_LOCAL FILE* writeLine(StreamLocks& streams, const KeptErrno& callersErrno, const char* format,
                               va_list args) GORV_PRINTF(4, 0);
    GORV_LOCAL void flushLine(FILE* file);
    GORV_LOCAL std::time_t composeLine(char* line, bool isStamped, const KeptErrno& callersErrno,
                                       const char* format, va_list args) GORV_PRINTF(5, 0);
    GORV_LOCAL FILE* outputFile();
    GORV_LOCAL FILE* ownFile(FILE* opened);
    GORV_LOCAL void flushFile();

    FILE* m_file;
    bool m_enabled;
    bool m_showTimestamp;
    bool m_echoToConsole;
    bool m_ownsFile; // the log opened m_file itself
    char* m_name;
    Monitor m_monitor;
    [[maybe_unused]] char* m_buffer;   // no longer used: each line has a buffer of its own
    [[maybe_unused]] int m_bufferSize; // 0
};
