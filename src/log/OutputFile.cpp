#include "OutputFile.h"

#include "base/FileDescriptor.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/single_threaded.h>
#include <utility>

namespace {

// About as long as another thread's line takes. To sleep and be woken costs several times that.
constexpr int kTries = 100;

bool tryToTake(FILE* stream)
{
    return stream == nullptr || ::ftrylockfile(stream) == 0;
}

void take(FILE* stream)
{
    for (int i = 0; i < kTries; ++i) {
        if (tryToTake(stream))
            return;
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
    FileDescriptor file(::open(path, flags | O_CREAT | O_CLOEXEC, permissions));
    FILE* const stream = leaveStandardNumbers(file) ? ::fdopen(file.get(), mode) : nullptr;
    if (stream != nullptr)
        file.release();
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
        take(first);
        if (tryToTake(second))
            return;
        if (first != nullptr)
            ::funlockfile(first);
        std::swap(first, second);
    }
}
