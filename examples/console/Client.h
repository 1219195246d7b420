// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "ASocket.h"

#include <string>
#include <string_view>
#include <vector>

/// The client's end of a connection to consoled. Used by one thread.
class Client {
public:
    /// Connects with the first request: who takes his time over a password holds no place meanwhile.
    Client(const char* host, int port) : m_host(host), m_port(port) {}

    struct Answer {
        bool arrived = false; ///< False when the daemon closed the connection.
        short result = 0;
        std::string text;
    };

    /// Send a request and wait for its answer. Throws GorvSocketException.
    Answer ask(short operation, const std::vector<std::string_view>& fields);

private:
    const std::string m_host;
    const int m_port;
    ASocket m_socket;
};
