// SPDX-License-Identifier: BSD-3-Clause
#include "ASocket.h"

#include "GorvSocketException.h"
#include "base/Deadline.h"
#include "net/TcpSocket.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <poll.h>

namespace {

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
                    status == EAI_SYSTEM ? ::strerrordesc_np(errno) : ::gai_strerror(status));
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
    const Deadline deadline(timeout == 0 ? -1 : timeout * 1000LL);
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
    target.fail(__LINE__, "Unable to connect socket", ::strerrordesc_np(error));
}

void throwFailure(const char* operation, int line, const char* message)
{
    throw GorvSocketException(operation, line, message);
}
