// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cerrno>

/// Gives the caller's errno back at the end of a scope.
class KeptErrno {
public:
    KeptErrno() : m_value(errno) {}
    ~KeptErrno() { restore(); }

    KeptErrno(const KeptErrno&) = delete;
    KeptErrno& operator=(const KeptErrno&) = delete;

    /// For what shows it: the message's "%m".
    void restore() const { errno = m_value; }

private:
    int m_value;
};
