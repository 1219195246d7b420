#pragma once

#include <cstdio>
#include <utility>

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
    StreamLocks() = default;
    ~StreamLocks() { unlock(); }

    StreamLocks(const StreamLocks&) = delete;
    StreamLocks& operator=(const StreamLocks&) = delete;

    /// @p second may be null, and both may be the same. Nothing may be locked yet.
    void lock(FILE* first, FILE* second = nullptr);
    void unlock()
    {
        giveBack(m_first);
        giveBack(m_second);
    }

private:
    static void giveBack(FILE*& stream)
    {
        if (stream != nullptr)
            ::funlockfile(std::exchange(stream, nullptr));
    }

    FILE* m_first = nullptr;
    FILE* m_second = nullptr;
};
