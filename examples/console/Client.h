#pragma once

#include "ASocket.h"

#include <string>
#include <string_view>
#include <vector>

/// The client's end of a connection to consoled. Used by one thread.
class Client {
public:
    /// Connects. Throws GorvSocketException.
    Client(const char* host, int port);

    struct Answer {
        bool arrived = false; ///< False when the daemon closed the connection.
        short result = 0;
        std::string text;
    };

    /// Send a request and wait for its answer.
    Answer ask(short operation, const std::vector<std::string_view>& fields);

private:
    ASocket m_socket;
};
