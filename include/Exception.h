// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "GorvApi.h"

#include <cstdarg>
#include <string>

/// Root of the exceptions that this library throws: it carries one message, formatted when it is made.
///
/// Thrown by value, caught by reference. Not related to std::exception.
///
/// @code
/// try {
///     port = AInteger::parseInt(text);
/// } catch (const Exception& failure) {
///     log.print("bad port \"%s\"\n", failure.getMessage().c_str());
/// }
/// @endcode
///
/// @include examples/reference/Exception.cpp
/// @verbinclude examples/reference/Exception.out
class GORV_API Exception {
public:
    /// The message is empty.
    Exception();
    /// Format the message printf-style. What goes beyond 4095 characters is cut off, and so is, as in a log
    /// line, what follows an argument that can't be formatted. "%n" is best not used: it ends the program in
    /// a format that isn't constant, and in any while no descriptor is left.
    explicit Exception(const char* format, ...) GORV_PRINTF(2, 3);

    virtual ~Exception();

    /// Copies the message.
    Exception(const Exception&) = default;
    /// Copies the message.
    Exception& operator=(const Exception&) = default;

    /// Returns the message, which lives as long as the exception.
    const std::string& getMessage() const;

protected:
    /// Replace the message, as the formatting constructor makes it. For derived classes with a format of
    /// their own.
    void formatMessage(const char* format, va_list args) GORV_PRINTF(2, 0);

private:
    std::string m_message;
};
