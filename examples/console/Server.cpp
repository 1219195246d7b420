// SPDX-License-Identifier: BSD-3-Clause
#include "Server.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

namespace {

constexpr int kBacklog = 256;
constexpr int kTickMs = 500;

Descriptor openSpare()
{
    return Descriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC));
}

/// What the system lacks now it may have in a moment; till then this loop must not spin.
void takeBreath()
{
    ::poll(nullptr, 0, kTickMs);
}

} // namespace

Server::Server(Services& services)
    : m_services(services), m_wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), m_spare(openSpare())
{
    m_services.sessionEnded = [this] { wake(); };
}

int Server::listen(int port)
{
    Descriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    ::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (!m_wake.isOpen() || ::bind(listener.get(), generic, size) != 0 ||
        ::listen(listener.get(), kBacklog) != 0 || ::getsockname(listener.get(), generic, &size) != 0)
        return -1;
    m_listener = std::move(listener);
    return ntohs(address.sin_port);
}

bool Server::serve()
{
    while (!m_stopRequested) {
        if (!waitForClient(std::chrono::milliseconds(kTickMs)))
            continue;
        acceptSome();
    }
    m_listener.reset();
    return endSessions();
}

/// Do what was asked for meanwhile. Returns whether there is a client.
bool Server::waitForClient(std::chrono::milliseconds time)
{
    std::array<pollfd, 2> ends = {{{m_wake.get(), POLLIN, 0}, {m_listener.get(), POLLIN, 0}}};
    if (::poll(ends.data(), ends.size(), static_cast<int>(time.count())) < 0) {
        if (errno != EINTR)
            takeBreath();
        return false;
    }
    eventfd_t wakeUps = 0;
    ::eventfd_read(m_wake.get(), &wakeUps);
    if (m_reopenRequested.exchange(false))
        m_services.reopenLogs();
    if (m_listRequested.exchange(false))
        m_services.admission.listUsers();
    if (const int session = m_endRequested.exchange(0); session != 0)
        m_services.admission.endSession(session);
    m_services.admission.report(false);
    burySessions();
    return ends[1].revents != 0;
}

/// What a session is in, a PAM step or a remote function, may never come back.
bool Server::endSessions()
{
    for (const auto& session : m_sessions) {
        session->stopThread();
        session->hangUp();
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(limits::kStopSeconds);
    while (!m_sessions.empty() && std::chrono::steady_clock::now() < end)
        waitForClient(std::chrono::milliseconds(kTickMs));
    m_services.admission.report(true);
    return m_sessions.empty();
}

void Server::stop()
{
    m_stopRequested = true;
    wake();
}

void Server::reopenLogs()
{
    m_reopenRequested = true;
    wake();
}

void Server::listUsers()
{
    m_listRequested = true;
    wake();
}

void Server::endSession(int session)
{
    m_endRequested = session;
    wake();
}

void Server::wake()
{
    const int saved = errno;
    ::eventfd_write(m_wake.get(), 1);
    errno = saved;
}

void Server::acceptSome()
{
    for (int i = 0; i < kBacklog && acceptOne(); ++i) {
    }
}

/// Returns whether there may be another client.
bool Server::acceptOne()
{
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    const int descriptor =
        ::accept4(m_listener.get(), reinterpret_cast<sockaddr*>(&peer), &size, SOCK_CLOEXEC);
    if (descriptor >= 0 && m_sessions.size() >= limits::kConnections)
        burySessions();
    if (descriptor >= 0 && m_sessions.size() < limits::kConnections) {
        beginSession(Descriptor(descriptor), peer);
    } else if (descriptor >= 0) {
        refuse(descriptor);
    } else if (errno == EMFILE || errno == ENFILE) {
        refuseWithSpare();
        return false;
    } else if (errno == ENOMEM || errno == ENOBUFS) {
        takeBreath();
        return false;
    } else {
        return errno == EINTR || errno == ECONNABORTED;
    }
    return true;
}

void Server::beginSession(Descriptor descriptor, const sockaddr_in& peer)
{
    try {
        m_sessions.push_back(std::make_unique<Session>(std::move(descriptor), peer, m_services));
        m_sessions.back()->start();
        if (!m_sessions.back()->isJoinable()) // no thread is left
            m_sessions.pop_back();
    } catch (const std::bad_alloc&) { // the client is hung up, the others go on
    }
}

/// No descriptor is left. The client would wait in the queue, and the loop would spin: the spare one takes it
/// out.
void Server::refuseWithSpare()
{
    m_spare.reset();
    refuse(::accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    m_spare = openSpare();
    if (!m_spare.isOpen())
        takeBreath();
}

void Server::refuse(int descriptor)
{
    const Descriptor client(descriptor);
    const std::string frame = protocol::frame(protocol::Busy, "no room for another connection");
    [[maybe_unused]] const ssize_t sent =
        ::send(client.get(), frame.data(), frame.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

void Server::burySessions()
{
    m_sessions.remove_if([](const std::unique_ptr<Session>& session) {
        if (session->isOverdue())
            session->hangUp();
        if (!session->isOver())
            return false;
        session->join();
        return true;
    });
}
