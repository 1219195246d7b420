// SPDX-License-Identifier: BSD-3-Clause
#include "util/ChildPipes.h"

#include <atomic>

bool openPipes(ChildPipes& pipes)
{
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0)
            return false;
        const bool isInput = stream == STDIN_FILENO;
        pipes.childs[stream] = FileDescriptor(ends[isInput ? 0 : 1]);
        pipes.ours[stream] = FileDescriptor(ends[isInput ? 1 : 0]);
        if (!leaveStandardNumbers(pipes.childs[stream]) || !leaveStandardNumbers(pipes.ours[stream]))
            return false;
    }
    return true;
}

void closeOnce(int& descriptor)
{
    const FileDescriptor closed(std::atomic_ref<int>(descriptor).exchange(-1));
}
