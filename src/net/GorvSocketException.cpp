// SPDX-License-Identifier: BSD-3-Clause
#include "GorvSocketException.h"

GorvSocketException::GorvSocketException(const std::string& function, int line, const std::string& message)
    : m_function(function), m_line(line), m_message(message)
{}

std::string GorvSocketException::getFunction() const
{
    return m_function;
}

int GorvSocketException::getLine() const
{
    return m_line;
}

std::string GorvSocketException::getMessage() const
{
    return m_message;
}
