// SPDX-License-Identifier: BSD-3-Clause
#include "OutputFile.h"

#include "base/StandardNumbers.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/single_threaded.h>
#include <utility>

namespace {

constexpr int kLongestPause = 32; // in calls of relax()

/// For as long as the processor takes to note that this thread waits for another.
void relax()
{
#if defined(__x86_64__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("isb"); // "yield" does nothing on most of them
#endif
}

bool tryToTake(FILE* stream)
{
    return stream == nullptr || ::ftrylockfile(stream) == 0;
}

void take(FILE* stream, int tries)
{
    // Ever less often: a try takes the lock's cache line away from the thread that is about to free it.
    for (int pause = 1; tries > 0; --tries, pause = std::min(2 * pause, kLongestPause)) {
        if (tryToTake(stream))
            return;
        for (int i = 0; i < pause; ++i)
            relax();
    }
    ::flockfile(stream);
}

} // namespace

FILE* openStream(const char* path, int flags, mode_t permissions, const char* mode)
{
    if (path == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    const StandardNumbers numbers;
    FileDescriptor file(::open(path, flags | O_CREAT | O_CLOEXEC | O_NONBLOCK, permissions));
    FILE* const stream = leaveStandardNumbers(file) ? ::fdopen(file.get(), mode) : nullptr;
    if (stream != nullptr)
        ::fcntl(file.release(), F_SETFL, flags); // only the opening must not wait
    return stream;
}

FILE* openToAppend(const char* path)
{
    return openStream(path, O_WRONLY | O_APPEND | O_NOFOLLOW | O_NOCTTY, 0600, "a");
}

void StreamLocks::lock(FILE* first, FILE* second)
{
    // A host may hold either lock around a print: neither is slept for with the other held.
    if (__libc_single_threaded != 0)
        return;
    m_first = first;
    m_second = second;
    while (true) {
        take(first, m_tries);
        if (tryToTake(second))
            return;
        if (first != nullptr)
            ::funlockfile(first);
        std::swap(first, second);
    }
}
