// SPDX-License-Identifier: BSD-3-Clause
// The reading operations of ASocket against a peer that sends, stalls and leaves as it likes, on a system
// that interrupts and fails. What comes back has to be the peer's bytes, and the state has to tell what
// happened.

#include "ALog.h"
#include "ASocket.h"
#include "Fuzz.h"
#include "Wire.h"

#include <memory>
#include <netinet/in.h>
#include <unistd.h>

namespace {

using fuzz::Wire;
using Outcome = Wire::Outcome;

constexpr unsigned char kUntouched = 0xA5;

/// One connection and what its reader has taken out of it.
class Reader {
public:
    Reader(Wire& wire, std::string_view bytes)
        : m_wire(wire), m_bytes(bytes), m_socket(wire.nearEnd(), m_peer)
    {}

    ASocket& socket() { return m_socket; }
    bool isConnected() { return m_socket.getSocketState() == ASocket::CONNECTED; }

    /// What @p read does to a buffer of @p len bytes at an offset in exactly as much memory. Without a
    /// connection its result is @p refusal.
    template <typename Read>
    void check(int offset, int len, bool complete, int refusal, Read read)
    {
        const bool wasConnected = isConnected();
        const std::size_t before = m_wire.received();
        const std::size_t size = static_cast<std::size_t>(offset) + static_cast<std::size_t>(len);
        const std::unique_ptr<unsigned char[]> buffer(new unsigned char[size]);
        std::memset(buffer.get(), kUntouched, size);
        const int result = read(buffer.get(), offset, len);
        const std::size_t arrived = m_wire.received() - before;
        if (!wasConnected) {
            MUST(result == refusal);
            MUST(arrived == 0);
            return;
        }
        checkResult(result, len, arrived, complete);
        checkBytes(buffer.get(), size, static_cast<std::size_t>(offset), before, arrived);
    }

private:
    void checkResult(int result, int len, std::size_t arrived, bool complete)
    {
        const int state = m_socket.getSocketState();
        const Outcome outcome = m_wire.lastOutcome();
        if (result > 0) {
            MUST(static_cast<std::size_t>(result) == arrived);
            MUST(state == ASocket::CONNECTED);
            MUST(result == len || (!complete && result < len));
        } else if (result == 0 && len > 0) {
            MUST(outcome == Outcome::End);
            MUST(state == ASocket::CLOSED_BY_PEER);
        } else if (result < 0) {
            MUST(outcome == (state == ASocket::CONNECTED ? Outcome::TimedOut : Outcome::Failed));
            MUST(state == ASocket::CONNECTED || state == ASocket::IO_ERROR);
        }
        MUST(static_cast<int>(arrived) <= len);
    }

    void checkBytes(const unsigned char* buffer, std::size_t size, std::size_t offset, std::size_t before,
                    std::size_t arrived)
    {
        for (std::size_t i = 0; i < size; ++i) {
            const bool isNew = i >= offset && i < offset + arrived;
            MUST(buffer[i] ==
                 (isNew ? static_cast<unsigned char>(m_bytes[before + i - offset]) : kUntouched));
        }
    }

    Wire& m_wire;
    std::string_view m_bytes;
    sockaddr_in m_peer{};
    ASocket m_socket;
};

void readOnce(Reader& reader, FuzzedDataProvider& input)
{
    const unsigned int timeout = input.ConsumeBool() ? 0 : input.ConsumeIntegral<unsigned int>();
    const int offset = input.ConsumeIntegralInRange(0, 8);
    const int len = input.ConsumeIntegralInRange(0, 100);
    ASocket& socket = reader.socket();
    switch (input.ConsumeIntegralInRange(0, 2)) {
    case 0:
        reader.check(offset, len, true, -1, [&](unsigned char* data, int at, int count) {
            return socket.readFully(data, at, count, timeout);
        });
        break;
    case 1:
        reader.check(offset, len + 1, false, -1, [&](unsigned char* data, int at, int count) {
            return socket.readAvailable(data + at, count, timeout);
        });
        break;
    default: {
        const bool fromEnd = input.ConsumeBool(); // where no byte of the array stands
        reader.check(offset, len, false, 0, [&](unsigned char* data, int at, int count) {
            return fromEnd ? socket.read(data + at + count, -count, count, timeout)
                           : socket.read(data, at, count, timeout);
        });
    }
    }
}

} // namespace

FUZZ_SETUP
{
    fuzz::silence();
    return 0;
}

FUZZ_TARGET
{
    static ALog s_log("fuzz", stdout);
    FuzzedDataProvider input(data, size);
    const std::string bytes = input.ConsumeRandomLengthString(300);
    const std::string script = input.ConsumeRandomLengthString(40);
    Wire wire(bytes, input.ConsumeBool(), script);
    Reader reader(wire, bytes);
    if (input.ConsumeBool())
        reader.socket().setLog(s_log);
    while (input.remaining_bytes() > 0)
        readOnce(reader, input);
    return 0;
}
