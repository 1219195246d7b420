// SPDX-License-Identifier: BSD-3-Clause
#include "ALog.h"
#include "ASocket.h"
#include "GorvSocketException.h"
#include "base/FileDescriptor.h"
#include "faults/Walk.h"
#include "support/Files.h"

#include <algorithm>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <optional>

namespace {

/// At any free port.
struct Listener {
    Listener()
    {
        socklen_t size = sizeof m_address;
        ::listen(m_socket.get(), 4);
        ::getsockname(m_socket.get(), reinterpret_cast<sockaddr*>(&m_address), &size);
    }
    int port() const { return ntohs(m_address.sin_port); }
    FileDescriptor accept() const
    {
        const CancelBlock block;
        FileDescriptor peer(::accept(m_socket.get(), nullptr, nullptr));
        ::send(peer.get(), "\0\0\1\0fourteen bytes", 18, 0);
        return peer;
    }

    const FileDescriptor m_socket{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    sockaddr_in m_address{};
};

/// A connection that is made, perhaps in time, used, copied and destroyed.
struct Talk : Road {
    explicit Talk(bool isInTime) : m_isInTime(isInTime)
    {
        m_log.setShowTimestamp(false);
        m_outcome.reserve(100); // only what is watched shall allocate
        m_socket.emplace();
    }

    void walk() override
    {
        try {
            if (m_isInTime)
                m_socket->connectTo("127.0.0.1", m_listener.port(), 60);
            else
                m_socket->createIPSocket("127.0.0.1", m_listener.port());
            m_peer = m_listener.accept();
            m_socket->setLog(m_log);
            readAndWrite();
        } catch (const GorvSocketException& failure) {
            m_outcome = failure.getMessage();
            EXPECT_FALSE(m_socket->isOpen());
        } catch (const std::bad_alloc&) {
            m_outcome = "no memory";
        }
        m_state = m_socket->getSocketState();
        m_socket.reset();
    }
    std::string arrive() override
    {
        if (m_socket) { // was cancelled
            m_outcome = "cancelled in state " + std::to_string(m_socket->getSocketState());
            const Listener listener;
            m_socket->createIPSocket("127.0.0.1", listener.port());
            const FileDescriptor peer = listener.accept();
            int value = 0;
            m_state = m_socket->readInt(value, 5) == 4 && value == 256 ? m_socket->getSocketState() : -1;
            m_socket.reset();
        }
        m_outcome += ", state " + std::to_string(m_state);
        const std::string errors = m_errors.text();
        if (!errors.empty())
            m_outcome += ", " + errors;
        std::string received(64, '\0');
        const ssize_t count = ::recv(m_peer.get(), received.data(), received.size(), MSG_WAITALL);
        received.resize(static_cast<std::size_t>(std::max(count, ssize_t{0})));
        EXPECT_EQ(received, std::string("\0\0\0\1a text.", 11).substr(0, received.size()));
        return m_outcome + ", " + std::to_string(received.size()) + " arrived";
    }
    std::vector<Monitor*> monitors() override { return {&m_log.m_monitor}; }

    void readAndWrite()
    {
        int value = 0;
        unsigned char data[14] = {};
        m_outcome = std::to_string(m_socket->readInt(value, 5)) + " read, ";
        m_outcome += std::to_string(m_socket->readFully(data, 0, sizeof data, 5)) + " read";
        m_socket->writeInt(1);
        *m_socket << "a text";
        ASocket copy(*m_socket);
        m_outcome += ", copy " + std::to_string(copy.getSocketState());
        copy.writeByte('.');
        m_outcome += std::to_string(copy.getSocketState());
    }

    const bool m_isInTime;
    const Listener m_listener;
    CapturedStream m_output{stdout}, m_errors{stderr};
    ALog m_log{"talk", stdout};
    std::optional<ASocket> m_socket;
    FileDescriptor m_peer;
    int m_state = -1;
    std::string m_outcome;
};

TEST(StreamWalkTest, NothingThatHappensToAConnectionLosesADescriptorOrMixesUpBytes)
{
    const std::string target = " ip=\"127.0.0.1\" port=[0-9]+\n";
    const std::string read = "4 read, 14 read, copy ";
    const std::string undisturbed = read + "11, state 1, (S.* failed: .*\n, )?11 arrived"; // and tried again
    const std::string uncopied = read + "55, state 1, 10 arrived"; // without a descriptor of the copy
    const std::string noMemory = "no memory, state 1, 0 arrived|no memory, state 0, 0 arrived";
    std::map<std::string, std::string> failures = {
        {"socket",
         "Failed to open socket" + target + ", state 4, Failed to open socket\n: Too many.*\n, 0 arrived"},
        {"setsockopt", read + "11, state 1, setsocketopt failed: Cannot allocate memory\n, 11 arrived"},
        {"malloc", "host info.*\n, state 2, host info not found: Cannot allocate memory\n, 0 arrived|" +
                       noMemory + "|" + undisturbed},
        {"new", noMemory},
        {"connect",
         "Unable to connect socket" + target + ", state 2, Unable to.*: Connection refused\n, 0 arrived"},
        {"poll", undisturbed},
        {"recv",
         "(-1|4) read, -1 read, copy 55, state 5, Socket recv failed: Connection reset.*\n, 0 arrived"},
        {"write", read + "(55, state 5, Socket write failed: Broken pipe\n, [04]|15, state 1, Socket write "
                         "failed: Broken pipe\n, 10) arrived"},
        {"fcntl", uncopied},
    };
    std::map<std::string, std::string> cancellations;
    for (const auto& [call, state] :
         {std::pair{"connect", "[04]"}, {"poll", "[14]"}, {"recv", "1"}, {"write", "1"}, {"fflush", "[01]"}})
        cancellations[call] = std::string("cancelled in state ") + state + ", state 1, [0-9]+ arrived";
    walkEachCall(
        {"connection", [] { return std::make_unique<Talk>(false); }, undisturbed, failures, cancellations});

    const auto failed = [](const std::string& reason) {
        return "Unable to connect socket host=.*: " + reason + "\n, state 4, 0 arrived";
    };
    for (const char* call : {"new", "setsockopt"}) // nothing asks for them, or tells of its progress
        failures.erase(call);
    cancellations.erase("fflush");
    failures["socket"] = failed("Too many open files");
    failures["malloc"] = "host info not found host=.*: Memory.*\n, state 4, 0 arrived|" + undisturbed;
    failures["connect"] = failed("Connection refused");
    failures["poll"] = failed("Cannot allocate memory") + "|" + undisturbed;
    failures["fcntl"] = failed("Too many open files") + "|" + uncopied;
    walkEachCall({"connection in time", [] { return std::make_unique<Talk>(true); }, undisturbed, failures,
                  cancellations});
}

} // namespace
