// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "GorvApi.h"

#include <cstdarg>
#include <string_view>

/// Composes one line in a buffer. What does not fit is cut off; the message, appended last, terminates the
/// line.
class LineFormat {
public:
    /// @p size is at least 1.
    LineFormat(char* buffer, std::size_t size) : m_begin(buffer), m_position(buffer), m_end(buffer + size - 1)
    {
        *buffer = '\0';
    }

    void append(std::string_view text);
    /// Append @p text, "(null)" for a null pointer.
    void appendText(const char* text);
    /// Append a message by the printf conventions, exactly as vsnprintf would; nothing for a null format.
    void appendMessage(const char* format, va_list args) GORV_PRINTF(2, 0);
    /// The same for a message of plain conversions. Returns false for any other, of which the line then holds
    /// a part.
    bool appendIfPlain(const char* format, va_list args) GORV_PRINTF(2, 0);
    /// Whether something may have been cut off.
    bool isFull() const { return m_position == m_end; }
    /// Of what is appended so far; not behind a message that isn't plain.
    std::size_t length() const { return static_cast<std::size_t>(m_position - m_begin); }

private:
    /// Append @p text up to @p stop or its end, and return where that is.
    const char* appendUpTo(char stop, const char* text);
    template <unsigned base>
    void appendNumber(unsigned value);
    void appendSigned(int value);
    bool appendPlain(const char* format, va_list& args);

    char* const m_begin;
    char* m_position;
    char* const m_end; // where the terminator goes at the latest
};
