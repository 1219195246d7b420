// SPDX-License-Identifier: BSD-3-Clause
#include "NumberFormatException.h"

NumberFormatException::NumberFormatException() = default;

NumberFormatException::NumberFormatException(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    formatMessage(format, args);
    va_end(args);
}

NumberFormatException::~NumberFormatException() = default;
