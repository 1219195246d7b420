#include "ALog.h"

#include "base/SharedField.h"
#include "log/LineFormat.h"
#include "log/LocalSecond.h"

#include <langinfo.h>
#include <memory>
#include <string_view>

const int ALog::INFO;
const int ALog::WARNING;
const int ALog::ERROR;
const int ALog::TRACE;

namespace {

constexpr int kLineSize = 2048;
constexpr const char* kDefaultFile = "debug.log";
constexpr const char* kStampFormat = "%m/%e/%Y %X ";
constexpr const char* kOpenMode = "w+e"; // "e": close-on-exec

std::unique_ptr<char[]> copyText(const char* text)
{
    const std::string_view source = text == nullptr ? "" : text;
    auto copy = std::make_unique<char[]>(source.size() + 1);
    source.copy(copy.get(), source.size());
    return copy;
}

/// The stamp that the thread formatted last, and what it depended on.
struct Stamp {
    LocalSecond time;
    const char* timeFormat = nullptr;
    std::size_t length = 0;
    char text[256] = {};
};

std::string_view currentStamp()
{
    static constinit thread_local Stamp s_stamp;
    const bool timeChanged = s_stamp.time.moveTo(std::time(nullptr));
    // "%X" follows the host's time locale, which may change between two lines.
    const char* const timeFormat = nl_langinfo(T_FMT);
    if (timeChanged || s_stamp.timeFormat != timeFormat) {
        s_stamp.length = s_stamp.time.writeTo(s_stamp.text, sizeof s_stamp.text, kStampFormat);
        s_stamp.timeFormat = timeFormat;
    }
    return {s_stamp.text, s_stamp.length};
}

} // namespace

ALog::ALog(const char* name) : ALog(name, nullptr)
{
    m_enabled = false;
}

ALog::ALog(const char* name, FILE* file)
    : m_file(file), m_enabled(true), m_showTimestamp(true), m_echoToConsole(false), m_ownsFile(false),
      m_name(nullptr), m_buffer(nullptr), m_bufferSize(kLineSize)
{
    auto nameCopy = copyText(name);
    m_buffer = new char[kLineSize]();
    m_name = nameCopy.release();
}

ALog::~ALog()
{
    delete[] m_name;
    delete[] m_buffer;
}

int ALog::setOutputFile(const char* path)
{
    // The old stream is closed first: were it the same file, its buffered lines would land in the emptied
    // one.
    if (m_ownsFile && m_file != nullptr)
        std::fclose(m_file);
    m_ownsFile = true;
    writeShared(m_file, path == nullptr ? nullptr : std::fopen(path, kOpenMode));
    return m_file == nullptr ? -1 : 0;
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
    va_list args;
    va_start(args, format);
    vprint(format, args);
    va_end(args);
    flushFile();
}

void ALog::print([[maybe_unused]] int level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vprint(format, args);
    va_end(args);
    flushFile();
}

void ALog::vprint(const char* format, va_list args)
{
    vprint(INFO, format, args);
}

void ALog::vprint([[maybe_unused]] int level, const char* format, va_list args)
{
    if (!readShared(m_enabled))
        return;
    const MonitorLock lock = m_monitor.acquireLock();
    if (m_file == nullptr && !openDefaultFile())
        return;
    composeLine(format, args);
    std::fputs(m_buffer, m_file);
    if (readShared(m_echoToConsole)) {
        std::fputs(m_buffer, stdout);
        std::fflush(stdout);
    }
}

void ALog::flush()
{
    flushFile();
    if (readShared(m_echoToConsole))
        std::fflush(stdout);
}

bool ALog::openDefaultFile()
{
    m_ownsFile = true;
    writeShared(m_file, std::fopen(kDefaultFile, kOpenMode));
    return m_file != nullptr;
}

void ALog::composeLine(const char* format, va_list args)
{
    LineFormat line(m_buffer, static_cast<std::size_t>(m_bufferSize));
    if (readShared(m_showTimestamp))
        line.append(currentStamp());
    line.appendText(m_name);
    line.appendText(" -");
    line.appendMessage(format, args);
}

void ALog::flushFile()
{
    // Another thread's first line may be opening the default file right now.
    FILE* file = readShared(m_file);
    if (file != nullptr)
        std::fflush(file);
}
