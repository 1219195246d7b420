// SPDX-License-Identifier: BSD-3-Clause
// An exception of the host's own, and the one that the library throws for a text that is no number.

#include "AInteger.h"
#include "NumberFormatException.h"

#include <cstdio>

class PortException : public Exception {
public:
    explicit PortException(int port) : Exception("port %d is out of range", port) {}
};

int parsePort(const char* text)
{
    const int port = AInteger::parseInt(text);
    if (port < 1 || port > 65535)
        throw PortException(port);
    return port;
}

int main()
{
    for (const char* text : {"4711", "70000", "100%s", "ninety%s"}) {
        try {
            std::printf("port %d\n", parsePort(text));
        } catch (const NumberFormatException& failure) {
            std::printf("no number: %s\n", failure.getMessage().c_str());
        } catch (const Exception& failure) { // the root: every exception of the library but the socket's
            std::printf("%s\n", failure.getMessage().c_str());
        }
    }
}
