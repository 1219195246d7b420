// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "base/FileDescriptor.h"

/// Holds the numbers of the standard streams that the host has closed, for the scope in which a descriptor is
/// made: one that had such a number, be it for a moment, would take what another thread prints. What holds
/// them can be neither read nor written.
class StandardNumbers {
public:
    StandardNumbers() noexcept;
    ~StandardNumbers();

    StandardNumbers(const StandardNumbers&) = delete;
    StandardNumbers& operator=(const StandardNumbers&) = delete;

private:
    unsigned m_held = 0; // a bit for each
};

/// Move @p descriptor off these numbers, where it still lands if another thread has just let them go.
/// @return whether it is open; if no other number is left, it no longer is, and errno says why.
bool leaveStandardNumbers(FileDescriptor& descriptor);
