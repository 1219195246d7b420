#include "ASocket.h"

#include "GorvSocketException.h"
#include "net/TcpSocket.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <netdb.h>
#include <poll.h>

namespace {

/// When a time-out ends, on the clock that nobody sets. With 0 seconds it never does.
class Deadline {
public:
    explicit Deadline(unsigned int seconds) : m_end(seconds == 0 ? kNever : now() + seconds * kSecond) {}

    /// The end of the first of @p parts equal ones.
    Deadline share(int parts) const
    {
        Deadline part(*this);
        if (m_end != kNever)
            part.m_end -= (m_end - now()) / parts * (parts - 1);
        return part;
    }

    /// What is left for poll, in milliseconds; -1 is for ever.
    int left() const
    {
        if (m_end == kNever)
            return -1;
        const long long milliseconds = (m_end - now() + kMillisecond - 1) / kMillisecond;
        return static_cast<int>(std::clamp(milliseconds, 0LL, static_cast<long long>(INT_MAX)));
    }

private:
    static constexpr long long kNever = LLONG_MAX; // all in nanoseconds
    static constexpr long long kMillisecond = 1'000'000;
    static constexpr long long kSecond = 1'000'000'000;

    static long long now()
    {
        timespec time{};
        ::clock_gettime(CLOCK_MONOTONIC, &time);
        return time.tv_sec * kSecond + time.tv_nsec;
    }

    long long m_end;
};

struct FreeAddresses {
    void operator()(addrinfo* first) const { ::freeaddrinfo(first); }
};

using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

/// What a caller wants to be connected to, for the messages of its failures.
struct Target {
    const char* host;
    const char* service;

    [[noreturn]] void fail(int line, const char* what, const char* reason) const
    {
        char text[kFailureTextSize];
        std::snprintf(text, sizeof text, "%s host=\"%s\" port=%s: %s\n", what, host, service, reason);
        throwFailure("connectTo", line, text);
    }
};

/// The addresses of @p target, at least one, in the resolver's order. Those of a family that this machine
/// has no address of are among them: who left them out would leave out the loopback address as well.
Addresses resolve(const Target& target)
{
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    addrinfo* first = nullptr;
    int status = EAI_NONAME;
    if (target.host != nullptr) { // which would be this machine
        const CancelBlock block;  // or the resolver's sockets and locks are left behind
        status = ::getaddrinfo(target.host, target.service, &hints, &first);
    }
    if (status != 0)
        target.fail(__LINE__, "host info not found",
                    status == EAI_SYSTEM ? std::strerror(errno) : ::gai_strerror(status));
    return Addresses(first);
}

int count(const addrinfo* address)
{
    int total = 0;
    for (; address != nullptr; address = address->ai_next)
        ++total;
    return total;
}

/// Wait until @p socket is connected. Returns the error number.
int awaitConnection(int socket, const Deadline& deadline)
{
    for (;;) {
        pollfd entry{socket, POLLOUT, 0};
        const int ready = ::poll(&entry, 1, deadline.left());
        if (ready > 0)
            break;
        if (ready == 0 && deadline.left() == 0)
            return ETIMEDOUT;
        if (ready < 0 && errno != EINTR)
            return errno;
    }
    int error = 0;
    socklen_t size = sizeof error;
    return ::getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

/// Connect a socket that doesn't block, and let it block from then on. Returns the error number.
int connectWithin(int socket, const addrinfo& address, const Deadline& deadline)
{
    int error = ::connect(socket, address.ai_addr, address.ai_addrlen) == 0 ? 0 : errno;
    if (error == EINPROGRESS || error == EINTR)
        error = awaitConnection(socket, deadline);
    if (error == 0 && ::fcntl(socket, F_SETFL, O_RDWR) != 0)
        error = errno;
    return error;
}

} // namespace

void ASocket::connectTo(const char* host, const char* service, unsigned int timeout)
{
    const Deadline deadline(timeout);
    const Target target{host, service};
    startAfresh();
    m_socketState = CONNECT_FAILED; // until one is made
    const Addresses addresses = resolve(target);
    int error = 0;
    for (const addrinfo* address = addresses.get(); address != nullptr; address = address->ai_next) {
        FileDescriptor socket = openTcpSocket(address->ai_family, SOCK_NONBLOCK);
        const Deadline share = deadline.share(count(address));
        error = socket.isOpen() ? connectWithin(socket.get(), *address, share) : errno;
        if (error != 0)
            continue;
        m_socket = socket.release();
        if (address->ai_family == AF_INET)
            std::memcpy(&m_address, address->ai_addr, sizeof m_address);
        m_socketState = CONNECTED;
        return;
    }
    target.fail(__LINE__, "Unable to connect socket", std::strerror(error));
}

void throwFailure(const char* operation, int line, const char* message)
{
    throw GorvSocketException(operation, line, message);
}
