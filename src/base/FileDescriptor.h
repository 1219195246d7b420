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
    ~FileDescriptor();

    bool isOpen() const { return m_number >= 0; }
    int get() const { return m_number; }
    int release() { return std::exchange(m_number, -1); }

private:
    int m_number = -1;
};
