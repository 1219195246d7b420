// SPDX-License-Identifier: BSD-3-Clause
#include "util/ChildPipes.h"

#include <atomic>
#include <utility>

namespace {

/// Make a pipe that never has the number of a standard stream, which the host may have closed: what another
/// thread prints would be in it, even if it moved to other numbers at once.
bool openPipe(FileDescriptor& readEnd, FileDescriptor& writeEnd)
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return false;
    FileDescriptor from(ends[0]), to(ends[1]);
    if (ends[0] <= STDERR_FILENO || ends[1] <= STDERR_FILENO)
        return openPipe(readEnd, writeEnd); // while this one takes such numbers
    readEnd = std::move(from);
    writeEnd = std::move(to);
    return true;
}

} // namespace

bool openPipes(ChildPipes& pipes)
{
    return openPipe(pipes.childs[STDIN_FILENO], pipes.ours[STDIN_FILENO]) &&
           openPipe(pipes.ours[STDOUT_FILENO], pipes.childs[STDOUT_FILENO]) &&
           openPipe(pipes.ours[STDERR_FILENO], pipes.childs[STDERR_FILENO]);
}

void closeOnce(int& descriptor)
{
    const FileDescriptor closed(std::atomic_ref<int>(descriptor).exchange(-1));
}
