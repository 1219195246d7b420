// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "GorvApi.h"

#include <string>

/// Says why a socket could not be connected. Thrown by value by ASocket::createIPSocket(), by the
/// constructors of ASocket that call it, and by ASocket::connectTo(); caught by reference, by its own type.
class GORV_API GorvSocketException {
public:
    /// Copies its arguments.
    GorvSocketException(const std::string& function, int line, const std::string& message);

    /// Returns the name of the operation that failed: "createIPSocket" or "connectTo".
    std::string getFunction() const;
    /// Returns the line of the library's source that threw.
    int getLine() const;
    /// Returns what failed. The text ends with a newline unless it was cut, which happens at 255 characters.
    std::string getMessage() const;

private:
    std::string m_function;
    int m_line;
    std::string m_message;
};
