// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdio>
#include <sys/types.h>
#include <utility>

/// Opens the file at @p path, made if need be, as open() does with @p flags and @p permissions and fdopen()
/// with @p mode: close-on-exec, and on none of the three standard descriptors, where the host's lines would
/// go into it. Returns null with errno on failure, as for a null path, and for a FIFO that is to be written
/// to and that nobody reads: it waits for nobody.
FILE* openStream(const char* path, int flags, mode_t permissions, const char* mode);

/// The same for appending. A new file has mode 0600; a symbolic link at the end of the path is refused.
FILE* openToAppend(const char* path);

/// Holds the locks of the streams that one line goes to, so that nothing comes between the line and its
/// flush, and that the thread that has the stream never sleeps for it again.
///
/// Whoever holds one calls nothing but stdio on these streams, the clock and what works in memory. The locks
/// of the time zone and of the locale are no such thing: who has one may be opening a file, for which he
/// waits for a thread in fflush(nullptr), and that one for us.
class StreamLocks {
public:
    /// A stream that another thread has is tried for @p tries times, with pauses, before it is slept for.
    explicit StreamLocks(int tries = 0) : m_tries(tries) {}
    ~StreamLocks() { unlock(); }

    StreamLocks(const StreamLocks&) = delete;
    StreamLocks& operator=(const StreamLocks&) = delete;

    /// @p second may be null, and both may be the same. Nothing may be locked yet.
    void lock(FILE* first, FILE* second = nullptr);
    void unlock()
    {
        for (FILE* stream : {std::exchange(m_first, nullptr), std::exchange(m_second, nullptr)}) {
            if (stream != nullptr)
                ::funlockfile(stream);
        }
    }

private:
    const int m_tries;
    FILE* m_first = nullptr;
    FILE* m_second = nullptr;
};
