#include "LineFormat.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace {

constexpr int kDecimal = 10;
constexpr int kHexadecimal = 16;

/// The digits of one integer.
class Digits {
public:
    template <typename Integer>
    explicit Digits(Integer value, int base = kDecimal)
        : m_end(std::to_chars(m_text, m_text + sizeof m_text, value, base).ptr)
    {}
    std::string_view text() const { return {m_text, static_cast<std::size_t>(m_end - m_text)}; }

private:
    char m_text[24]; // enough for 64 bits in decimal with their sign
    const char* m_end;
};

} // namespace

void LineFormat::append(std::string_view text)
{
    const std::size_t length = std::min(text.size(), static_cast<std::size_t>(m_end - m_position));
    std::memcpy(m_position, text.data(), length);
    m_position += length;
}

const char* LineFormat::appendUpTo(char stop, const char* text)
{
    // Not the member, which each stored char could change for all that the compiler knows.
    char* position = m_position;
    char* const end = m_end;
    for (; *text != stop && *text != '\0'; ++text) {
        if (position != end)
            *position++ = *text;
    }
    m_position = position;
    return text;
}

void LineFormat::appendText(const char* text)
{
    appendUpTo('\0', text == nullptr ? "(null)" : text);
}

void LineFormat::appendMessage(const char* format, va_list args)
{
    if (format == nullptr)
        format = "";
    char* const begin = m_position;
    va_list copy;
    va_copy(copy, args);
    const bool complete = appendPlain(format, copy);
    va_end(copy);
    if (complete) {
        *m_position = '\0';
        return;
    }
    m_position = begin;
    const auto room = static_cast<std::size_t>(m_end - begin) + 1;
    std::vsnprintf(begin, room, format, args);
    *m_end = '\0'; // a message that printf can't finish keeps what it has written of it
}

/// Most messages hold nothing but plain conversions, which cost a fraction of vsnprintf here. Returns false
/// at anything else: a flag, a width, a precision or a rarer conversion.
bool LineFormat::appendPlain(const char* format, va_list& args)
{
    while (true) {
        format = appendUpTo('%', format);
        if (*format != '%')
            return true;
        format += 2;
        switch (format[-1]) {
        case 's':
            appendText(va_arg(args, const char*));
            break;
        case 'd':
        case 'i':
            append(Digits(va_arg(args, int)).text());
            break;
        case 'u':
            append(Digits(va_arg(args, unsigned int)).text());
            break;
        case 'x':
            append(Digits(va_arg(args, unsigned int), kHexadecimal).text());
            break;
        case '%':
            append("%");
            break;
        default:
            return false;
        }
    }
}
