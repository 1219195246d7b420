// SPDX-License-Identifier: BSD-3-Clause
#include "Exception.h"

#include <algorithm>
#include <cstdio>

namespace {

constexpr std::size_t kScratchSize = 4096;

} // namespace

Exception::Exception() = default;

Exception::Exception(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    formatMessage(format, args);
    va_end(args);
}

Exception::~Exception() = default;

const std::string& Exception::getMessage() const
{
    return m_message;
}

void Exception::formatMessage(const char* format, va_list args)
{
    char scratch[kScratchSize] = "";
    const int length = std::vsnprintf(scratch, sizeof scratch, format, args);
    if (length < 0)
        m_message = scratch; // as far as printf could format it
    else
        m_message.assign(scratch, std::min(static_cast<std::size_t>(length), kScratchSize - 1));
}
