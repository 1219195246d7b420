// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "Exception.h"

/// Says that a text is no number. AInteger::parseInt() throws it with the rejected text as its message.
class GORV_API NumberFormatException : public Exception {
public:
    /// The message is empty.
    NumberFormatException();
    /// Format the message printf-style, as Exception does. Text from outside goes in through "%s".
    explicit NumberFormatException(const char* format, ...) GORV_PRINTF(2, 3);

    ~NumberFormatException() override;

    /// Copies the message.
    NumberFormatException(const NumberFormatException&) = default;
    /// Copies the message.
    NumberFormatException& operator=(const NumberFormatException&) = default;
};
