#include "Fuzz.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

ssize_t appendTo(void* cookie, const char* bytes, std::size_t size)
{
    if (cookie != nullptr)
        static_cast<std::string*>(cookie)->append(bytes, size);
    return static_cast<ssize_t>(size);
}

ssize_t takeFrom(void* cookie, char* bytes, std::size_t size)
{
    auto& text = *static_cast<std::string_view*>(cookie);
    const std::size_t count = text.copy(bytes, size);
    text.remove_prefix(count);
    return static_cast<ssize_t>(count);
}

} // namespace

namespace fuzz {

void fail(const char* what, const char* file, int line)
{
    ::dprintf(STDERR_FILENO, "%s:%d: broken: %s\n", file, line, what);
    std::abort();
}

FILE* streamInto(std::string* text)
{
    return ::fopencookie(text, "w", {nullptr, appendTo, nullptr, nullptr});
}

FILE* streamFrom(std::string_view* text)
{
    return ::fopencookie(text, "r", {takeFrom, nullptr, nullptr, nullptr});
}

void silence()
{
    stdout = streamInto(nullptr);
    stderr = streamInto(nullptr);
}

std::vector<std::string> splitAtZero(std::string_view bytes)
{
    std::vector<std::string> texts;
    for (;;) {
        const std::size_t end = bytes.find('\0');
        texts.emplace_back(bytes.substr(0, end));
        if (end == std::string_view::npos)
            return texts;
        bytes.remove_prefix(end + 1);
    }
}

} // namespace fuzz
