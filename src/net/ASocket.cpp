// SPDX-License-Identifier: BSD-3-Clause
#include "ASocket.h"

#include "ALog.h"
#include "GorvSocketException.h"
#include "base/AtExit.h"
#include "base/CancelBlock.h"
#include "base/FileDescriptor.h"
#include "net/BigEndian.h"
#include "net/TcpSocket.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <fcntl.h>
#include <netdb.h>
#include <optional>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

const int ASocket::NOT_CONNECTED;
const int ASocket::CONNECTED;
const int ASocket::CLOSED;
const int ASocket::CLOSED_BY_PEER;
const int ASocket::CONNECT_FAILED;
const int ASocket::IO_ERROR;

/// Write a line of @p operation to the socket's log. While nobody reads the log, nothing is formatted.
#define LOG_LINE(operation, format, ...)                                                                     \
    do {                                                                                                     \
        if (m_log.getBaseLog() != nullptr)                                                                   \
            m_log.print("ASocket::%s:%d" format, operation, __LINE__ __VA_OPT__(, ) __VA_ARGS__);            \
    } while (false)

namespace {

constexpr int kNoDescriptor = -1;
constexpr int kMostSignificantFirst = 1;
constexpr std::size_t kHostBufferSize = 1024;
constexpr int kWaitRetries = 3;
constexpr int kMilliseconds = 1000;
constexpr unsigned int kLongestPoll = INT_MAX / kMilliseconds; // in seconds; poll is the cheaper system call
// How much longer setStallLimit() lets sending wait, in microseconds: no time-out that a program sets itself
// looks like that by chance, and the system keeps half a second exactly.
constexpr suseconds_t kLimitMark = 500'000;
constexpr const char* kConnectOperation = "createIPSocket";
constexpr const char* kReceiveOperation = "socket_read";

int duplicate(int descriptor)
{
    return descriptor < 0 ? kNoDescriptor : ::fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

/// perror opens a descriptor of its own, which a cancellation would leave behind.
void complain(const char* what)
{
    const CancelBlock block;
    std::perror(what);
}

/// Find the first IPv4 address of @p name. The re-entrant form of gethostbyname keeps sockets of different
/// threads independent. A cancellation in there would leave the resolver's sockets and locks behind.
std::optional<in_addr> resolve(const char* name)
{
    if (name == nullptr) {
        errno = EINVAL;
        return std::nullopt;
    }
    hostent entry{};
    hostent* found = nullptr;
    std::vector<char> buffer(kHostBufferSize);
    const CancelBlock block;
    while (::gethostbyname_r(name, &entry, buffer.data(), buffer.size(), &found, &h_errno) == ERANGE)
        buffer.resize(buffer.size() * 2);
    if (found == nullptr)
        return std::nullopt;
    in_addr address{};
    if (found->h_length <= static_cast<int>(sizeof address))
        std::memcpy(&address, found->h_addr_list[0], static_cast<std::size_t>(found->h_length));
    return address;
}

int failWith(int error)
{
    errno = error;
    return -1;
}

/// The wait that a limit of 0 descriptors leaves to a process, which poll then refuses to serve.
int selectReadable(int descriptor, unsigned int timeout)
{
    if (::fcntl(descriptor, F_GETFD) < 0)
        return -1; // select may overlook one that isn't open
    const int set = descriptor / FD_SETSIZE;
    auto* const sets = static_cast<fd_set*>(std::calloc(static_cast<std::size_t>(set) + 1, sizeof(fd_set)));
    if (sets == nullptr)
        return -1;
    const AtExit release([sets] { std::free(sets); });
    FD_SET(descriptor % FD_SETSIZE, sets + set);
    timeval limit{static_cast<std::time_t>(timeout), 0};
    return ::select(descriptor + 1, sets, nullptr, nullptr, &limit);
}

/// Wait as select does, but for any descriptor number. Returns -1 with errno, 0 after the time-out, or 1.
int waitReadable(int descriptor, unsigned int timeout)
{
    if (descriptor < 0)
        return failWith(EBADF); // ppoll would only let the time pass
    pollfd entry{descriptor, POLLIN, 0};
    const timespec limit{static_cast<std::time_t>(timeout), 0};
    const int ready = timeout <= kLongestPoll ? ::poll(&entry, 1, static_cast<int>(timeout) * kMilliseconds)
                                              : ::ppoll(&entry, 1, &limit, nullptr);
    if (ready < 0 && errno == EINVAL)
        return selectReadable(descriptor, timeout);
    return ready > 0 && (entry.revents & POLLNVAL) != 0 ? failWith(EBADF) : ready;
}

/// The limit of setStallLimit() on @p descriptor, in seconds; 0: none, or a time-out that the program set.
unsigned int stallLimit(int descriptor)
{
    timeval receiving{};
    timeval sending{};
    socklen_t size = sizeof receiving;
    ::getsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &receiving, &size);
    ::getsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &sending, &size);
    if (receiving.tv_usec != 0 || sending.tv_sec != receiving.tv_sec || sending.tv_usec != kLimitMark)
        return 0;
    return static_cast<unsigned int>(receiving.tv_sec);
}

ssize_t receiveOnce(int descriptor, unsigned char* data, int len, int flag)
{
    if (len < 0)
        return failWith(EINVAL); // the system would take it for the size of a huge buffer
    return ::recv(descriptor, data, static_cast<std::size_t>(len), flag);
}

ssize_t sendOnce(int descriptor, const unsigned char* data, int len)
{
    if (len < 0)
        return failWith(EINVAL);
    return ::write(descriptor, data, static_cast<std::size_t>(len));
}

/// The byte that a log line shows of a buffer, 0 if there is none.
unsigned firstByte(const unsigned char* data, int len)
{
    return data != nullptr && len > 0 ? *data : 0;
}

} // namespace

ASocket::ASocket()
    : m_socket(kNoDescriptor), m_networkByteOrder(kMostSignificantFirst), m_address{},
      m_socketState(NOT_CONNECTED), m_silent(false)
{}

ASocket::ASocket(const ASocket& other)
    : m_socket(duplicate(other.m_socket)), m_networkByteOrder(other.m_networkByteOrder),
      m_address(other.m_address), m_socketState(other.m_socketState), m_silent(false)
{
    if (other.m_socket >= 0 && m_socket < 0)
        m_socketState = IO_ERROR;
}

ASocket::ASocket(const char* ip, int port, bool silent) : ASocket()
{
    std::printf("ASocket::%s:%d in constructor: ip=\"%s\" port=%i\n", __func__, __LINE__, ip, port);
    m_silent = silent;
    try {
        createIPSocket(ip, port);
    } catch (const GorvSocketException& failure) {
        if (m_socket >= 0)
            ASocket::close();
        std::printf("ASocket::%s:%d Exception with message: %s.\n", failure.getFunction().c_str(),
                    failure.getLine(), failure.getMessage().c_str());
        throw;
    } catch (const std::exception&) { // not a cancellation, which may have come while the output blocked
        if (m_socket >= 0)
            ASocket::close();
        std::printf("ASocket::%s:%d Exception connecting to data ip=\"%s\" port=%i.\n", __func__, __LINE__,
                    ip, port);
        throw;
    }
}

ASocket::ASocket(const char* ip, int port) : ASocket(ip, port, false)
{}

ASocket::ASocket(int socket, sockaddr_in& address)
    : m_socket(socket), m_networkByteOrder(kMostSignificantFirst), m_address(address),
      m_socketState(CONNECTED), m_silent(false)
{}

void ASocket::createIPSocket(const char* ip, int port)
{
    std::printf("ASocket::%s:%d ip=\"%s\" port=%i\n", __func__, __LINE__, ip, port);
    std::fflush(stdout);
    startAfresh();
    m_socket = openTcpSocket(AF_INET, 0).release();
    if (m_socket < 0) {
        m_socketState = CONNECT_FAILED;
        failConnecting("Failed to open socket\n", "Failed to open socket ip=\"%s\" port=%i\n", ip, port);
    }
    const int on = 1;
    if (::setsockopt(m_socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0)
        complain("setsocketopt failed");
    if (!m_silent) {
        std::printf("ASocket::%s:%d:       connecting...\n", __func__, __LINE__);
        std::fflush(stdout);
    }

    const std::optional<in_addr> host = resolve(ip);
    if (!host) {
        failConnecting("host info not found", "host info not found ip=\"%s\"\n", ip);
    }
    m_address.sin_family = AF_INET;
    m_address.sin_addr = *host;
    m_address.sin_port = htons(static_cast<std::uint16_t>(port));
    if (::connect(m_socket, reinterpret_cast<const sockaddr*>(&m_address), sizeof m_address) < 0) {
        m_socketState = CONNECT_FAILED;
        failConnecting("Unable to connect socket", "Unable to connect socket ip=\"%s\" port=%i\n", ip, port);
    }
    m_socketState = CONNECTED;
    if (!m_silent) {
        std::printf("ASocket::%s:%d  Successful connection to %s\n", __func__, __LINE__, ip);
        std::fflush(stdout);
    }
}

void ASocket::setLog(ALog& log)
{
    m_log.setBaseLog(log);
}

void ASocket::setSilent(bool silent)
{
    m_silent = silent;
}

bool ASocket::isOpen()
{
    return m_socket != kNoDescriptor;
}

int ASocket::getSocketState()
{
    return m_socketState;
}

int ASocket::getDescriptor()
{
    return m_socket;
}

bool ASocket::setStallLimit(unsigned int seconds)
{
    timeval limit{static_cast<std::time_t>(seconds), 0};
    if (::setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0)
        return false;
    if (seconds != 0)
        limit.tv_usec = kLimitMark;
    return ::setsockopt(m_socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0;
}

bool ASocket::shutDown()
{
    return ::shutdown(m_socket, SHUT_RDWR) == 0;
}

void ASocket::write(const unsigned char* data, int len)
{
    if (m_socketState != CONNECTED)
        return;
    LOG_LINE(__func__, ": write( %x, %i )\n", firstByte(data, len), len);
    sendAll(data, len);
}

void ASocket::writeInt(int value)
{
    LOG_LINE(__func__, ": writeInt( %i )\n", value);
    unsigned char bytes[4];
    storeBigEndian32(bytes, static_cast<std::uint32_t>(value));
    write(bytes, sizeof bytes);
}

void ASocket::writeString(const unsigned char* text)
{
    if (text == nullptr)
        return;
    const char* characters = reinterpret_cast<const char*>(text);
    LOG_LINE(__func__, " : writeString( %s )\n", characters);
    write(text, static_cast<int>(std::min(std::strlen(characters), std::size_t{INT_MAX})));
}

void ASocket::flush()
{
    if (m_socketState == CONNECTED)
        ::fsync(m_socket);
}

void ASocket::close()
{
    const FileDescriptor former(std::exchange(m_socket, kNoDescriptor)); // no cancellation leaves it half-way
    m_socketState = CLOSED;
}

ASocket::~ASocket()
{
    if (m_socket >= 0)
        ASocket::close();
}

void ASocket::writeByte(unsigned char value)
{
    if (m_socketState != CONNECTED)
        return;
    LOG_LINE(__func__, ": write( %x, %i )\n", value, 1);
    sendAll(&value, 1);
}

void ASocket::writeShort(int value)
{
    LOG_LINE(__func__, ": writeShort( %i )\n", value);
    unsigned char bytes[2];
    storeBigEndian16(bytes, static_cast<std::uint16_t>(value));
    write(bytes, sizeof bytes);
}

int ASocket::read(unsigned char* data, int offset, int len, unsigned int timeout)
{
    LOG_LINE(__func__, " m_socketState=<%d> offset=<%d> len=<%d> timeout=<%i>\n", m_socketState, offset, len,
             timeout);
    if (m_socketState != CONNECTED)
        return 0;
    LOG_LINE(__func__, " read( %x, %i, %i )\n", firstByte(data, std::max(len, 0) + std::min(offset, 0)),
             offset, len);
    const int count = socket_read(data + offset, len, MSG_WAITALL, timeout);
    LOG_LINE(__func__, " count=<%d>\n", count);
    return count;
}

int ASocket::readInt(int& value, unsigned int timeout)
{
    LOG_LINE(__func__, ": timeout = %i\n", timeout);
    unsigned char bytes[4] = {};
    const int result = readFully(bytes, 0, sizeof bytes, timeout);
    if (result == sizeof bytes)
        value = static_cast<int>(loadBigEndian32(bytes));
    else
        LOG_LINE(__func__, ": failed count = %i\n", result);
    LOG_LINE(__func__, ": read value = %i\n", value);
    return result;
}

int ASocket::readShort(short& value, unsigned int timeout)
{
    LOG_LINE(__func__, ": timeout = %i\n", timeout);
    unsigned char bytes[2] = {};
    const int result = readFully(bytes, 0, sizeof bytes, timeout);
    if (result == sizeof bytes)
        value = static_cast<short>(loadBigEndian16(bytes));
    else
        LOG_LINE(__func__, ": failed count = %i\n", result);
    LOG_LINE(__func__, ": read value = %i\n", value);
    return result;
}

int ASocket::readByte(unsigned char& value, unsigned int timeout)
{
    LOG_LINE(__func__, ": timeout = %i\n", timeout);
    const int result = readFully(&value, 0, 1, timeout);
    LOG_LINE(__func__, ": read value = %i\n", value);
    return result;
}

int ASocket::readFully(unsigned char* data, int offset, int len, unsigned int timeout)
{
    LOG_LINE(__func__, " m_socketState=<%d> offset=<%d> len=<%d> timeout=<%i>\n", m_socketState, offset, len,
             timeout);
    if (m_socketState != CONNECTED)
        return -1;
    int received = 0;
    unsigned int stall = 0;
    while (received < len) {
        LOG_LINE(__func__, ":    about to read from socket\n");
        const int count =
            socket_read(data + offset + received, len - received, MSG_WAITALL, stall != 0 ? stall : timeout);
        if (count < 0 && stall != 0)
            m_socketState = IO_ERROR; // the next read must not take the rest of this message for its own
        if (count < 1)
            return count;
        received += count;
        LOG_LINE(__func__, ":    read returned %i, %i bytes have been read.\n", count, received);
        if (received < len)
            stall = stallLimit(m_socket);
    }
    LOG_LINE(__func__, ":    read %i bytes\n", received);
    return received;
}

int ASocket::readAvailable(unsigned char* data, int len, unsigned int timeout)
{
    return m_socketState == CONNECTED && len > 0 ? socket_read(data, len, 0, timeout) : -1;
}

int ASocket::socket_read(unsigned char* data, int len, int flag, unsigned int timeout)
{
    LOG_LINE(__func__, " data=<%x> len=<%d> flag=<%d> timeout=<%i>\n", firstByte(data, len), len, flag,
             timeout);
    if (timeout != 0 && !awaitData(timeout))
        return -1;
    return receive(data, len, flag);
}

ASocket& ASocket::operator<<(const unsigned char* text)
{
    writeString(text);
    return *this;
}

ASocket& ASocket::operator<<(const char* text)
{
    return *this << reinterpret_cast<const unsigned char*>(text);
}

void ASocket::startAfresh()
{
    ASocket::close();
    m_networkByteOrder = kMostSignificantFirst;
    m_address = {};
    m_socketState = NOT_CONNECTED;
}

void ASocket::failConnecting(const char* complaint, const char* format, ...)
{
    complain(complaint);
    std::fflush(stderr);
    char message[kFailureTextSize];
    va_list args;
    va_start(args, format);
    std::vsnprintf(message, sizeof message, format, args);
    va_end(args);
    std::printf("ASocket::%s:%d %s\n", kConnectOperation, __LINE__, message);
    std::fflush(stdout);
    if (m_socket >= 0)
        close();
    throwFailure(kConnectOperation, __LINE__, message);
}

void ASocket::sendAll(const unsigned char* data, int len)
{
    for (;;) {
        const int sent = static_cast<int>(sendOnce(m_socket, data, len));
        if (sent < 0 && errno == EINTR)
            continue; // nothing was sent yet
        if (sent < 0) {
            m_socketState = IO_ERROR;
            complain("Socket write failed");
            return;
        }
        data += sent;
        len -= sent;
        if (len == 0)
            return;
    }
}

bool ASocket::awaitData(unsigned int timeout)
{
    for (int retries = kWaitRetries;;) {
        const int ready = waitReadable(m_socket, timeout);
        if (ready > 0)
            return true;
        if (ready == 0) {
            LOG_LINE(kReceiveOperation, " select timed out.\n");
            return false;
        }
        const int error = errno;
        complain("Select failed");
        LOG_LINE(kReceiveOperation, " Select failed\n");
        if (error != EINTR && (error == EBADF || retries-- == 0)) {
            m_socketState = IO_ERROR;
            return false;
        }
    }
}

int ASocket::receive(unsigned char* data, int len, int flag)
{
    for (;;) {
        const int count = static_cast<int>(receiveOnce(m_socket, data, len, flag));
        if (count > 0) {
            LOG_LINE(kReceiveOperation, " :    read %i bytes\n", count);
            return count;
        }
        if (count == 0) {
            m_socketState = CLOSED_BY_PEER;
            LOG_LINE(kReceiveOperation, " Connection closed by peer.");
            return count;
        }
        const int error = errno;
        if (error == EAGAIN && stallLimit(m_socket) != 0) {
            waitReadable(m_socket, UINT_MAX); // no message has begun that could stall
            continue;
        }
        complain("Socket recv failed");
        if (error == EAGAIN || error == EINTR)
            continue;
        m_socketState = IO_ERROR;
        LOG_LINE(kReceiveOperation, " Socket recv failed count=<%d>\n", count);
        return count;
    }
}
