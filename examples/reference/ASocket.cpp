// SPDX-License-Identifier: BSD-3-Clause
// Both ends of a connection in one program: a message, a time-out, a stalled message, what is there, the end
// of the stream, and a refused connection.

#include "ASocket.h"
#include "GorvSocketException.h"

#include <arpa/inet.h>
#include <cstdio>
#include <unistd.h>

int main()
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::bind(listener, generic, size) != 0 || ::listen(listener, 1) != 0 ||
        ::getsockname(listener, generic, &size) != 0)
        return 1;
    const int port = ntohs(address.sin_port);

    ASocket client;
    client.connectTo("127.0.0.1", port, 5); // prints nothing, as opposed to createIPSocket()
    ASocket server(::accept(listener, generic, &size), address);
    ::close(listener);

    client.writeInt(5); // a string has no length of its own on the wire
    client << "hello";
    int length = 0;
    unsigned char text[16] = {};
    if (server.readInt(length, 5) == 4 && length < 16 && server.readFully(text, 0, length, 5) == length)
        std::printf("%d bytes: %s\n", length, text);

    unsigned char byte = 0;
    std::printf("after a second: %d\n", server.readByte(byte, 1));

    client << "no text of 16";
    std::printf("what is there: %d bytes\n", server.readAvailable(text, sizeof text, 5));

    client.setStallLimit(1);
    server.writeByte(1); // of the four
    const bool stalled = client.readInt(length, 5) == -1 && client.getSocketState() == ASocket::IO_ERROR;
    std::printf("stalled: %d, still open: %d\n", stalled, client.getDescriptor() >= 0);
    client.shutDown(); // another thread could do that to a reader
    std::printf("after the end: %d, ", server.readByte(byte, 5));
    std::printf("by the peer: %d\n", server.getSocketState() == ASocket::CLOSED_BY_PEER);

    try {
        client.createIPSocket("127.0.0.1", port); // nobody listens any more
    } catch (const GorvSocketException& failure) {
        std::printf("%s failed, open: %d\n", failure.getFunction().c_str(), client.isOpen());
    }
}
