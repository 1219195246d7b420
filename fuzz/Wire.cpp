// SPDX-License-Identifier: BSD-3-Clause
#include "Wire.h"

#include "Fuzz.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

fuzz::Wire* s_wire = nullptr;

bool isWire(int descriptor)
{
    return s_wire != nullptr && descriptor == s_wire->nearEnd();
}

} // namespace

namespace fuzz {

Wire::Wire(std::string_view bytes, bool closes, std::string_view script) : m_script(script)
{
    int ends[2];
    MUST(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
    m_near = ends[0];
    m_far = ends[1];
    MUST(::send(m_far, bytes.data(), bytes.size(), MSG_DONTWAIT) == static_cast<ssize_t>(bytes.size()));
    if (closes)
        ::shutdown(m_far, SHUT_WR);
    s_wire = this;
}

Wire::~Wire()
{
    s_wire = nullptr;
    ::close(m_far);
}

ssize_t Wire::receive(void* buffer, std::size_t size)
{
    const std::uint8_t step = nextStep();
    if (step == 1 || step == 2)
        return failWith<ssize_t>(step == 1 ? EINTR : EAGAIN);
    if (step == 3)
        return failWith<ssize_t>(ECONNRESET);
    if (step > 3)
        size = std::min<std::size_t>(size, step - 3); // as if a signal arrived between two pieces
    const ssize_t count = ::syscall(SYS_recvfrom, m_near, buffer, size, MSG_DONTWAIT, nullptr, nullptr);
    if (count < 0)
        return failWith<ssize_t>(errno == EAGAIN ? ECONNRESET : errno);
    m_outcome = count == 0 ? Outcome::End : Outcome::Data;
    m_received += static_cast<std::size_t>(count);
    return count;
}

int Wire::wait(short& events)
{
    const std::uint8_t step = nextStep();
    if (step == 1)
        return failWith<int>(EINTR);
    if (step == 2 || step == 3)
        return failWith<int>(step == 2 ? ENOMEM : EBADF);
    const timespec now{};
    pollfd entry{m_near, POLLIN, 0};
    const long ready = ::syscall(SYS_ppoll, &entry, 1, &now, nullptr, 0);
    if (ready == 0 || step == 4) {
        m_outcome = Outcome::TimedOut;
        return 0;
    }
    events = entry.revents;
    return static_cast<int>(ready);
}

std::uint8_t Wire::nextStep()
{
    if (m_script.empty())
        return 0;
    const auto step = static_cast<std::uint8_t>(m_script.front());
    m_script.remove_prefix(1);
    return step < 128 ? step : 0;
}

template <typename Result>
Result Wire::failWith(int error)
{
    m_outcome = error == EINTR || error == EAGAIN ? Outcome::Interrupted : Outcome::Failed;
    errno = error;
    return -1;
}

} // namespace fuzz

// The program's own definitions come before the C library's.
extern "C" {

ssize_t recv(int descriptor, void* buffer, std::size_t size, int flags)
{
    if (isWire(descriptor))
        return s_wire->receive(buffer, size);
    return ::syscall(SYS_recvfrom, descriptor, buffer, size, flags, nullptr, nullptr);
}

int ppoll(pollfd* entries, nfds_t count, const timespec* limit, const sigset_t* mask)
{
    if (count == 1 && isWire(entries->fd))
        return s_wire->wait(entries->revents);
    return static_cast<int>(::syscall(SYS_ppoll, entries, count, limit, mask, sizeof(std::uint64_t)));
}

int poll(pollfd* entries, nfds_t count, int milliseconds)
{
    const timespec limit{milliseconds / 1000, milliseconds % 1000 * 1000000L};
    return ppoll(entries, count, milliseconds < 0 ? nullptr : &limit, nullptr);
}
}
