#pragma once

#include <cstdio>

/// Opens the file at @p path for appending, close-on-exec, on none of the three standard descriptors. A new
/// file has mode 0600; a symbolic link at the end of the path is refused. Returns null with errno on failure.
FILE* openToAppend(const char* path);

/// Holds the locks of the streams that one line goes to, so that nothing comes between the line and its
/// flush, and that the thread that has the stream never sleeps for it again.
///
/// Whoever holds one may call stdio on these streams alone. What opens or closes another stream, as reading a
/// time zone does, waits for a thread in fflush(nullptr), and that one for us.
class StreamLocks {
public:
    /// Either may be null, and both may be the same.
    explicit StreamLocks(FILE* first, FILE* second = nullptr);
    ~StreamLocks();

    StreamLocks(const StreamLocks&) = delete;
    StreamLocks& operator=(const StreamLocks&) = delete;

private:
    FILE* m_first;
    FILE* m_second;
};
