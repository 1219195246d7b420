// SPDX-License-Identifier: BSD-3-Clause
#include "ATrace.h"

#include "base/CancelBlock.h"
#include "base/SharedField.h"
#include "log/KeptErrno.h"
#include "log/LineFormat.h"
#include "log/LocalSecond.h"
#include "log/OutputFile.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <string_view>
#include <sys/time.h>
#include <utility>

ATrace* gTrace = nullptr;

namespace {

constexpr int kMicrosecondsPerMillisecond = 1000;
constexpr mode_t kPermissions = 0666; // less what the umask takes
constexpr std::size_t kShortLine = 2048;

/// The stamp that the thread made last, up to the milliseconds.
struct Stamp {
    LocalSecond time;
    int length = 0;
    char text[96] = {};
};

std::string_view stampOf(std::time_t second)
{
    static constinit thread_local Stamp s_stamp;
    if (s_stamp.time.moveTo(second)) {
        const std::tm& fields = s_stamp.time.fields();
        s_stamp.length = std::snprintf(s_stamp.text, sizeof s_stamp.text, "%04i/%02i/%02i %02i:%02i:%02i_",
                                       fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday,
                                       fields.tm_hour, fields.tm_min, fields.tm_sec);
    }
    return {s_stamp.text, static_cast<std::size_t>(s_stamp.length)};
}

/// printf into memory. Returns the length of the whole message, or of what comes before an argument that
/// can't be formatted.
GORV_PRINTF(3, 0)
std::size_t formatMessage(char* text, std::size_t size, const char* format, va_list args)
{
    va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(text, size, format, copy);
    va_end(copy);
    return length < 0 ? std::strlen(text) : static_cast<std::size_t>(length);
}

/// A line in memory, of any length. Composed while no stream is locked: see StreamLocks.
class Line {
public:
    Line(const KeptErrno& callersErrno, const char* format, va_list args) GORV_PRINTF(3, 0);

    /// Take over the milliseconds of now. Returns false where that isn't in the line's second.
    bool stampNow();

    std::string_view text() const { return {m_text, m_length}; }

private:
    /// For a message that is not plain, or longer than the line.
    void appendMessage(std::size_t head, const KeptErrno& callersErrno, const char* format, va_list args)
        GORV_PRINTF(4, 0);
    void stampMilliseconds(const timeval& now);

    std::time_t m_second;
    std::size_t m_milliseconds; // where they stand
    std::size_t m_length;
    char* m_text = m_short;
    std::unique_ptr<char[]> m_long;
    char m_short[kShortLine];
};

Line::Line(const KeptErrno& callersErrno, const char* format, va_list args)
{
    timeval now{};
    gettimeofday(&now, nullptr);
    m_second = now.tv_sec;
    const std::string_view stamp = stampOf(m_second);
    m_milliseconds = stamp.size();
    LineFormat line(m_short, sizeof m_short);
    line.append(stamp);
    line.append("000 ");
    stampMilliseconds(now);
    const std::size_t head = line.length();
    if (line.appendIfPlain(format, args) && !line.isFull())
        m_length = line.length();
    else
        appendMessage(head, callersErrno, format, args);
}

void Line::appendMessage(std::size_t head, const KeptErrno& callersErrno, const char* format, va_list args)
{
    callersErrno.restore();
    std::size_t length = formatMessage(m_short + head, sizeof m_short - head, format, args);
    if (head + length >= sizeof m_short) {
        m_long.reset(new (std::nothrow) char[head + length + 1]);
        if (m_long == nullptr) {
            length = sizeof m_short - 1 - head; // cut off
        } else {
            std::memcpy(m_long.get(), m_short, head);
            m_text = m_long.get();
            callersErrno.restore();
            length = std::min(length, formatMessage(m_text + head, length + 1, format, args));
        }
    }
    m_length = head + length;
}

bool Line::stampNow()
{
    timeval now{};
    gettimeofday(&now, nullptr);
    if (now.tv_sec != m_second)
        return false;
    stampMilliseconds(now);
    return true;
}

void Line::stampMilliseconds(const timeval& now)
{
    const int milliseconds = static_cast<int>(now.tv_usec / kMicrosecondsPerMillisecond);
    char* const text = m_text + m_milliseconds;
    text[0] = static_cast<char>('0' + milliseconds / 100);
    text[1] = static_cast<char>('0' + milliseconds / 10 % 10);
    text[2] = static_cast<char>('0' + milliseconds % 10);
}

} // namespace

ATrace::ATrace() : m_disabled(true), m_fileName(nullptr), m_file(nullptr), m_level(0), m_firstOpen(true)
{}

ATrace::~ATrace()
{
    Close();
    std::free(m_fileName);
}

void ATrace::Init(int level, char* fileName)
{
    writeShared(m_level, level);
    if (fileName == nullptr) {
        std::puts("Trace File Name Missing");
        return;
    }
    char* nameCopy = ::strdup(fileName);
    if (nameCopy == nullptr)
        return;
    {
        const MonitorLock lock = m_monitor.acquireLock();
        replaceFileName(nameCopy);
        writeShared(m_disabled, false);
    }
    // Without the lock: gTrace may be another trace, and two monitors are never held at once.
    if (gTrace != nullptr)
        gTrace->TraceLog(0, "%s Trace Starting\n", "ATrace::Init:");
}

void ATrace::TraceLog(int level, char* format, ...)
{
    if (!admits(level))
        return;
    va_list args;
    va_start(args, format);
    vTraceLog(format, args);
    va_end(args);
}

// For hosts that take its address.
template GORV_API void ATrace::TraceLog(int level, const char* format, ...);

void ATrace::Close()
{
    const CancelBlock block;
    FILE* closed = nullptr;
    {
        const MonitorLock lock = m_monitor.acquireLock();
        std::swap(m_file, closed);
    }
    if (closed != nullptr)
        std::fclose(closed);
}

int ATrace::Reopen(const char* fileName)
{
    const CancelBlock block;
    FILE* opened = openToAppend(fileName);
    if (opened == nullptr)
        return -1;
    char* const nameCopy = ::strdup(fileName);
    if (nameCopy != nullptr) {
        const MonitorLock lock = m_monitor.acquireLock();
        replaceFileName(nameCopy);
        m_firstOpen = false;
        std::swap(m_file, opened);
    }
    const KeptErrno errnoOfCopy;
    if (opened != nullptr)
        std::fclose(opened);
    return nameCopy == nullptr ? -1 : 0;
}

void ATrace::vTraceLog(const char* format, va_list args)
{
    const KeptErrno callersErrno;
    if (readShared(m_disabled) || readShared(m_fileName) == nullptr)
        return;
    for (bool mayBeLate = false;; mayBeLate = true) {
        Line line(callersErrno, format, args);
        const MonitorLock lock = m_monitor.acquireLock();
        if (m_file == nullptr && !openFile())
            return;
        StreamLocks stream;
        stream.lock(m_file);
        if (!line.stampNow() && !mayBeLate)
            continue; // once more: another thread's line may show the next second already
        ::fwrite_unlocked(line.text().data(), 1, line.text().size(), m_file);
        ::fflush_unlocked(m_file);
        return;
    }
}

void ATrace::replaceFileName(char* name)
{
    std::free(std::atomic_ref(m_fileName).exchange(name));
}

bool ATrace::openFile()
{
    const CancelBlock block;
    if (m_firstOpen) {
        m_firstOpen = false;
        FILE* const emptied = openStream(m_fileName, O_WRONLY | O_TRUNC, kPermissions, "w");
        if (emptied != nullptr)
            std::fclose(emptied);
    }
    m_file = openStream(m_fileName, O_WRONLY | O_APPEND, kPermissions, "a");
    return m_file != nullptr;
}

void ShowLastError([[maybe_unused]] char* text)
{}
