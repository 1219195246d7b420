// SPDX-License-Identifier: BSD-3-Clause
#include "base/StandardNumbers.h"

#include <sys/syscall.h>

// By system calls of their own, in which no cancellation acts.

StandardNumbers::StandardNumbers() noexcept
{
    long number = 0;
    while ((number = ::syscall(SYS_openat, AT_FDCWD, "/", O_PATH | O_CLOEXEC)) >= 0 &&
           number <= STDERR_FILENO)
        m_held |= 1U << number;
    ::syscall(SYS_close, number);
}

StandardNumbers::~StandardNumbers()
{
    for (long number = STDIN_FILENO; m_held != 0; ++number, m_held >>= 1) {
        if ((m_held & 1) != 0)
            ::syscall(SYS_close, number);
    }
}

bool leaveStandardNumbers(FileDescriptor& descriptor)
{
    if (descriptor.isOpen() && descriptor.get() <= STDERR_FILENO)
        descriptor = FileDescriptor(::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    return descriptor.isOpen();
}
