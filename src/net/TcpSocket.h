// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "base/StandardNumbers.h"

#include <cstddef>
#include <netinet/in.h>
#include <sys/socket.h>

/// The size of what holds the message of a failure to connect, which is cut there.
constexpr std::size_t kFailureTextSize = 256;

/// A TCP socket of @p family, close-on-exec, of none of the standard numbers, with further @p flags. On
/// failure it is closed, and errno tells why.
inline FileDescriptor openTcpSocket(int family, int flags)
{
    const StandardNumbers numbers;
    FileDescriptor socket(::socket(family, SOCK_STREAM | SOCK_CLOEXEC | flags, IPPROTO_TCP));
    leaveStandardNumbers(socket);
    return socket;
}

/// Throw GorvSocketException.
[[noreturn]] void throwFailure(const char* operation, int line, const char* message);
