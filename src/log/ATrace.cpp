#include "ATrace.h"

#include "base/FileDescriptor.h"
#include "base/SharedField.h"
#include "log/KeptErrno.h"
#include "log/LineFormat.h"
#include "log/LocalSecond.h"
#include "log/OutputFile.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/time.h>
#include <utility>

ATrace* gTrace = nullptr;

namespace {

constexpr int kMicrosecondsPerMillisecond = 1000;
constexpr mode_t kPermissions = 0666; // less what the umask takes
constexpr int kPlainSize = 160;       // most lines fit

/// The stamp that the thread made last, and the time of its text up to the seconds.
struct Stamp {
    LocalSecond time;
    int secondsLength = 0;
    char text[96] = {};
};

/// Terminated, too.
std::string_view currentStamp()
{
    static constinit thread_local Stamp s_stamp;
    timeval now{};
    gettimeofday(&now, nullptr);
    s_stamp.time.followZone();
    if (s_stamp.time.moveTo(now.tv_sec)) {
        const std::tm& fields = s_stamp.time.fields();
        s_stamp.secondsLength = std::snprintf(
            s_stamp.text, sizeof s_stamp.text, "%04i/%02i/%02i %02i:%02i:%02i_", fields.tm_year + 1900,
            fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec);
    }
    const int milliseconds = static_cast<int>(now.tv_usec / kMicrosecondsPerMillisecond);
    char* position = s_stamp.text + s_stamp.secondsLength;
    *position++ = static_cast<char>('0' + milliseconds / 100);
    *position++ = static_cast<char>('0' + milliseconds / 10 % 10);
    *position++ = static_cast<char>('0' + milliseconds % 10);
    *position++ = ' ';
    *position = '\0';
    return {s_stamp.text, static_cast<std::size_t>(position - s_stamp.text)};
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
    const MonitorLock lock = m_monitor.acquireLock();
    if (m_file != nullptr)
        std::fclose(std::exchange(m_file, nullptr));
}

int ATrace::Reopen(const char* fileName)
{
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
    const MonitorLock lock = m_monitor.acquireLock();
    if (m_file == nullptr && !openFile())
        return;
    const std::string_view stamp = currentStamp(); // before the stream is locked: see StreamLocks
    char text[kPlainSize];
    LineFormat line(text, sizeof text);
    line.append(stamp);
    const bool isPlain = line.appendIfPlain(format, args) && !line.isFull();
    StreamLocks stream;
    stream.lock(m_file);
    ::fputs_unlocked(isPlain ? text : stamp.data(), m_file);
    callersErrno.restore();
    if (!isPlain)
        std::vfprintf(m_file, format, args);
    ::fflush_unlocked(m_file);
}

void ATrace::replaceFileName(char* name)
{
    std::free(std::atomic_ref(m_fileName).exchange(name));
}

bool ATrace::openFile()
{
    if (m_firstOpen) {
        m_firstOpen = false;
        const FileDescriptor emptied(
            ::open(m_fileName, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kPermissions));
    }
    m_file = openStream(m_fileName, O_WRONLY | O_APPEND, kPermissions, "a");
    return m_file != nullptr;
}

void ShowLastError([[maybe_unused]] char* text)
{}
