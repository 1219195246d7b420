// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "base/CancelBlock.h"

#include <fcntl.h>
#include <unistd.h>
#include <utility>

/// Owns one descriptor and closes it in the end.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int number) : m_number(number) {}
    FileDescriptor(FileDescriptor&& other) noexcept : m_number(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept
    {
        std::swap(m_number, other.m_number);
        return *this;
    }
    ~FileDescriptor()
    {
        if (!isOpen())
            return;
        const CancelBlock block; // nothing may leave a destructor
        ::close(m_number);
    }

    bool isOpen() const { return m_number >= 0; }
    int get() const { return m_number; }
    int release() { return std::exchange(m_number, -1); }

private:
    int m_number = -1;
};

/// Move @p descriptor off the numbers of the standard streams, where a new one lands if the host has closed
/// one of them: what the host prints would go into it.
/// @return whether it is open; if no other number is left, it no longer is, and errno says why.
inline bool leaveStandardNumbers(FileDescriptor& descriptor)
{
    if (descriptor.isOpen() && descriptor.get() <= STDERR_FILENO)
        descriptor = FileDescriptor(::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    return descriptor.isOpen();
}
