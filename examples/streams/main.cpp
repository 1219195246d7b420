// Both ends of a connection: a child process sends a name, the parent answers with a greeting.

#include "ASocket.h"
#include "GorvSocketException.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr unsigned int kTimeout = 5; // seconds

/// The end that was connected to. A string has no length of its own on the wire, so one goes ahead of it.
void greet(ASocket& socket)
{
    int length = 0;
    unsigned char name[64] = {};
    if (socket.readInt(length, kTimeout) != 4 || length < 0 || length >= static_cast<int>(sizeof name))
        return;
    if (socket.readFully(name, 0, length, kTimeout) == length)
        socket << "Hello, " << name << ".\n";
}

/// The end that connects.
void introduce(ASocket& socket, const char* name)
{
    socket.writeInt(static_cast<int>(std::strlen(name)));
    socket << name;
    for (unsigned char letter = 0; socket.readByte(letter, kTimeout) == 1;)
        std::putchar(letter);
}

int listenOnLoopback(sockaddr_in& address)
{
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    const bool listens = ::bind(listener, generic, size) == 0 && ::listen(listener, 1) == 0 &&
                         ::getsockname(listener, generic, &size) == 0;
    return listens ? listener : -1;
}

int runChild(int port, const char* name)
{
    try {
        ASocket socket("127.0.0.1", port, true);
        introduce(socket, name);
        return socket.getSocketState() == ASocket::CLOSED_BY_PEER ? 0 : 1;
    } catch (const GorvSocketException& failure) {
        std::fprintf(stderr, "%s", failure.getMessage().c_str());
        return 1;
    }
}

} // namespace

int main(int argc, char** argv)
{
    sockaddr_in address{};
    const int listener = listenOnLoopback(address);
    if (listener < 0) {
        std::perror("streams");
        return 1;
    }
    const pid_t child = ::fork();
    if (child < 0) {
        std::perror("streams");
        return 1;
    }
    if (child == 0)
        return runChild(ntohs(address.sin_port), argc > 1 ? argv[1] : "world");
    {
        socklen_t size = sizeof address;
        ASocket socket(::accept(listener, reinterpret_cast<sockaddr*>(&address), &size), address);
        greet(socket);
    }
    int status = 1;
    ::waitpid(child, &status, 0);
    return status == 0 ? 0 : 1;
}
