// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "GorvApi.h"

/// A stream that takes bytes, strings and integers with the most significant byte first.
///
/// No operation throws or returns a result; the class that implements the stream says how it reports
/// failures. Not destroyed through this interface.
class GORV_API AOutputStream {
public:
    /// Send @p len bytes from @p data.
    virtual void write(const unsigned char* data, int len) = 0;

    /// Send the 4 bytes of @p value.
    virtual void writeInt(int value) = 0;

    /// Send the characters of @p text without its terminator or a length. Null sends nothing.
    virtual void writeString(const unsigned char* text) = 0;

    /// Push out what was written.
    virtual void flush() = 0;

    /// End the stream.
    virtual void close() = 0;

protected:
    ~AOutputStream() = default;
};
