// SPDX-License-Identifier: BSD-3-Clause
#include "ALog.h"

#include "base/CancelBlock.h"
#include "base/SharedField.h"
#include "log/KeptErrno.h"
#include "log/LineFormat.h"
#include "log/LocalSecond.h"
#include "log/OutputFile.h"

#include <cstring>
#include <fcntl.h>
#include <langinfo.h>
#include <memory>
#include <string_view>

const int ALog::INFO;
const int ALog::WARNING;
const int ALog::ERROR;
const int ALog::TRACE;

namespace {

constexpr std::size_t kLineSize = 2048; // with the terminator
constexpr const char* kDefaultFile = "debug.log";
constexpr mode_t kPermissions = 0666; // less what the umask takes

// To sleep and be woken costs what several buffered lines take, so one that waits for those stays awake a
// while. For the flush of a line, which is a system call, that gains nothing.
constexpr int kTriesToBuffer = 12;

FILE* openEmptied(const char* path)
{
    return openStream(path, O_RDWR | O_TRUNC, kPermissions, "w+");
}

std::unique_ptr<char[]> copyText(const char* text)
{
    const std::string_view source = text == nullptr ? "" : text;
    auto copy = std::make_unique<char[]>(source.size() + 1);
    source.copy(copy.get(), source.size());
    return copy;
}

/// Whether the time by @p timeFormat shows nothing that the locale says elsewhere: no "%p", no "%r".
bool hasNumbersOnly(std::string_view timeFormat)
{
    for (std::size_t i = timeFormat.find('%'); i < timeFormat.size(); i = timeFormat.find('%', i + 2)) {
        if (i + 1 == timeFormat.size() ||
            std::string_view("HIMST").find(timeFormat[i + 1]) == std::string_view::npos)
            return false;
    }
    return true;
}

/// The stamp that a thread formatted last, and what it depended on.
class Stamp {
public:
    /// Bring it up to @p second.
    void moveTo(std::time_t second)
    {
        // "%X" follows the host's time locale, which may change between two lines.
        const char* const timeFormat = nl_langinfo(T_FMT);
        if (!m_time.moveTo(second) && m_isKept && std::strcmp(timeFormat, m_timeFormat) == 0)
            return;
        m_length = m_time.format(m_text, sizeof m_text);
        const std::size_t length = std::strlen(timeFormat);
        m_isKept = hasNumbersOnly(timeFormat) && length < sizeof m_timeFormat;
        if (m_isKept)
            std::memcpy(m_timeFormat, timeFormat, length + 1);
    }

    std::string_view text() const { return {m_text, m_length}; }

private:
    LocalSecond m_time;
    std::size_t m_length = 0;
    bool m_isKept = false;
    char m_timeFormat[24] = {};
    char m_text[256] = {};
};

/// Not inlined, or the compiler would look the thread's copy up at each use.
[[gnu::noinline]] Stamp& stampOfThread()
{
    static constinit thread_local Stamp s_stamp;
    return s_stamp;
}

std::string_view stampOf(std::time_t second)
{
    Stamp& stamp = stampOfThread();
    stamp.moveTo(second);
    return stamp.text();
}

} // namespace

ALog::ALog(const char* name) : ALog(name, nullptr)
{
    m_enabled = false;
}

ALog::ALog(const char* name, FILE* file)
    : m_file(file), m_enabled(true), m_showTimestamp(true), m_echoToConsole(false), m_ownsFile(false),
      m_name(nullptr), m_buffer(nullptr), m_bufferSize(0)
{
    m_name = copyText(name).release();
}

ALog::~ALog()
{
    delete[] m_name;
}

int ALog::setOutputFile(const char* path)
{
    const CancelBlock block;
    // The old stream is closed first: were it the same file, its buffered lines would land in the emptied
    // one.
    if (m_ownsFile && m_file != nullptr)
        std::fclose(m_file);
    m_ownsFile = true;
    writeShared(m_file, openEmptied(path));
    return m_file == nullptr ? -1 : 0;
}

int ALog::reopenOutputFile(const char* path)
{
    const CancelBlock block;
    FILE* const opened = openToAppend(path);
    if (opened == nullptr)
        return -1;
    FILE* const own = ownFile(opened);
    if (own == opened)
        return 0;
    // Others may be waiting for the stream's lock: it stays, and its descriptor moves on.
    int result = 0;
    {
        StreamLocks streams;
        streams.lock(own);
        ::fflush_unlocked(own);
        result = ::dup3(::fileno(opened), ::fileno(own), O_CLOEXEC);
    }
    const KeptErrno errnoOfResult;
    std::fclose(opened);
    return result < 0 ? -1 : 0;
}

void ALog::setEnabled(bool enabled)
{
    writeShared(m_enabled, enabled);
}

bool ALog::getEnabled()
{
    return readShared(m_enabled);
}

void ALog::setShowTimestamp(bool show)
{
    writeShared(m_showTimestamp, show);
}

bool ALog::getShowTimestamp()
{
    return readShared(m_showTimestamp);
}

void ALog::setEchoToConsole(bool echo)
{
    writeShared(m_echoToConsole, echo);
}

bool ALog::getEchoToConsole()
{
    return readShared(m_echoToConsole);
}

void ALog::print(const char* format, ...)
{
    const KeptErrno callersErrno;
    StreamLocks streams;
    va_list args;
    va_start(args, format);
    FILE* const file = writeLine(streams, callersErrno, format, args);
    va_end(args);
    flushLine(file);
}

void ALog::print([[maybe_unused]] int level, const char* format, ...)
{
    // As above, and not a function for both: one more return after the system call costs 3 % of a line.
    const KeptErrno callersErrno;
    StreamLocks streams;
    va_list args;
    va_start(args, format);
    FILE* const file = writeLine(streams, callersErrno, format, args);
    va_end(args);
    flushLine(file);
}

void ALog::vprint(const char* format, va_list args)
{
    vprint(INFO, format, args);
}

void ALog::vprint([[maybe_unused]] int level, const char* format, va_list args)
{
    const KeptErrno callersErrno;
    StreamLocks streams(kTriesToBuffer);
    writeLine(streams, callersErrno, format, args);
}

void ALog::flush()
{
    flushFile();
    if (readShared(m_echoToConsole))
        std::fflush(stdout);
}

/// Returns the stream of the line, locked by @p streams; null if nothing was written.
FILE* ALog::writeLine(StreamLocks& streams, const KeptErrno& callersErrno, const char* format, va_list args)
{
    if (!readShared(m_enabled))
        return nullptr;
    FILE* const file = outputFile();
    if (file == nullptr)
        return nullptr;
    const bool isStamped = readShared(m_showTimestamp);
    FILE* const echo = readShared(m_echoToConsole) ? stdout : nullptr;
    char line[kLineSize];
    const std::time_t second = composeLine(line, isStamped, callersErrno, format, args);
    streams.lock(file, echo);
    if (isStamped && std::time(nullptr) != second) {
        // Another thread's line may show the next second already.
        streams.unlock();
        composeLine(line, isStamped, callersErrno, format, args);
        streams.lock(file, echo);
    }
    ::fputs_unlocked(line, file);
    if (echo != nullptr) {
        ::fputs_unlocked(line, echo);
        ::fflush_unlocked(echo);
    }
    return file;
}

/// Compose a line of kLineSize bytes at the most, while no stream is locked: see StreamLocks. Returns the
/// second that it is stamped with.
std::time_t ALog::composeLine(char* line, bool isStamped, const KeptErrno& callersErrno, const char* format,
                              va_list args)
{
    const std::time_t second = isStamped ? std::time(nullptr) : 0;
    LineFormat text(line, kLineSize);
    if (isStamped)
        text.append(stampOf(second));
    text.appendText(m_name);
    text.appendText(" -");
    callersErrno.restore();
    text.appendMessage(format, args);
    return second;
}

/// Returns the stream that lines go to, the default file if there is none; null if that can't be opened.
FILE* ALog::outputFile()
{
    if (FILE* file = readShared(m_file))
        return file;
    const CancelBlock block;
    const MonitorLock lock = m_monitor.acquireLock();
    if (m_file == nullptr) {
        m_ownsFile = true;
        writeShared(m_file, openEmptied(kDefaultFile));
    }
    return m_file;
}

/// Returns the log's own stream, which is @p opened from now on if there is none.
FILE* ALog::ownFile(FILE* opened)
{
    const MonitorLock lock = m_monitor.acquireLock();
    if (m_file == nullptr || !m_ownsFile) {
        m_ownsFile = true;
        writeShared(m_file, opened);
    }
    return m_file;
}

/// Flush @p file, which is locked; without one, as for a line that was not written, the log's own.
void ALog::flushLine(FILE* file)
{
    if (file != nullptr)
        ::fflush_unlocked(file);
    else
        flushFile();
}

void ALog::flushFile()
{
    // Another thread's first line may be opening the default file right now.
    FILE* file = readShared(m_file);
    if (file != nullptr)
        std::fflush(file);
}
