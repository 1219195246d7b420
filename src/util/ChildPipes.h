// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "base/FileDescriptor.h"

// What the two ways of starting a program have in common.

/// By the number of the child's stream.
struct ChildPipes {
    FileDescriptor childs[STDERR_FILENO + 1];
    FileDescriptor ours[STDERR_FILENO + 1];
};

/// Open all three, close-on-exec and at none of the standard numbers.
/// @return whether they are open; otherwise errno says why.
bool openPipes(ChildPipes& pipes);

/// Close @p descriptor unless it is -1, which it becomes. Another thread or a signal handler may do the same.
void closeOnce(int& descriptor);
