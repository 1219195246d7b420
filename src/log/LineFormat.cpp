// SPDX-License-Identifier: BSD-3-Clause
#include "LineFormat.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

void LineFormat::append(std::string_view text)
{
    const std::size_t length = std::min(text.size(), static_cast<std::size_t>(m_end - m_position));
    std::memcpy(m_position, text.data(), length);
    m_position += length;
}

const char* LineFormat::appendUpTo(char stop, const char* text)
{
    // Not the members, which each stored char could change for all that the compiler knows.
    char* position = m_position;
    char* const end = m_end;
    for (; *text != stop && *text != '\0'; ++text) {
        if (position == end) {
            text = ::strchrnul(text, stop);
            break;
        }
        *position++ = *text;
    }
    m_position = position;
    return text;
}

void LineFormat::appendText(const char* text)
{
    appendUpTo('\0', text == nullptr ? "(null)" : text);
}

template <unsigned base>
void LineFormat::appendNumber(unsigned value)
{
    char digits[10]; // of 32 bits
    char* const end = digits + sizeof digits;
    char* first = end;
    do {
        *--first = "0123456789abcdef"[value % base];
        value /= base;
    } while (value != 0);
    append({first, static_cast<std::size_t>(end - first)});
}

void LineFormat::appendSigned(int value)
{
    const auto magnitude = static_cast<unsigned>(value);
    if (value < 0)
        append("-");
    appendNumber<10>(value < 0 ? 0 - magnitude : magnitude);
}

void LineFormat::appendMessage(const char* format, va_list args)
{
    char* const begin = m_position;
    if (appendIfPlain(format, args))
        return;
    m_position = begin;
    const auto room = static_cast<std::size_t>(m_end - begin) + 1;
    va_list copy;
    va_copy(copy, args);
    std::vsnprintf(begin, room, format, copy);
    va_end(copy);
    *m_end = '\0'; // a message that printf can't finish keeps what it has written of it
}

bool LineFormat::appendIfPlain(const char* format, va_list args)
{
    va_list copy;
    va_copy(copy, args);
    const bool isPlain = format == nullptr || appendPlain(format, copy);
    va_end(copy);
    *m_position = '\0';
    return isPlain;
}

/// Most messages hold nothing but plain conversions, which cost a fraction of vsnprintf here. Returns false
/// at anything else: a flag, a width, a precision or a rarer conversion.
bool LineFormat::appendPlain(const char* format, va_list& args)
{
    while (true) {
        format = appendUpTo('%', format);
        if (*format == '\0')
            return true;
        format += 2;
        switch (format[-1]) {
        case 's':
            appendText(va_arg(args, const char*));
            break;
        case 'd':
        case 'i':
            appendSigned(va_arg(args, int));
            break;
        case 'u':
            appendNumber<10>(va_arg(args, unsigned int));
            break;
        case 'x':
            appendNumber<16>(va_arg(args, unsigned int));
            break;
        case '%':
            append("%");
            break;
        default:
            return false;
        }
    }
}
