// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "GorvApi.h"

/// A stream that gives bytes and integers with the most significant byte first.
///
/// Every operation takes a time-out in seconds that bounds each wait for data; 0 waits without limit. What
/// follows a first byte may be awaited without limit until the other end closes. Every operation returns a
/// count of bytes, 0 when the other end has closed, -1 after a time-out or a failure.
/// None throws. Not destroyed through this interface.
class GORV_API AInputStream {
public:
    /// Receive up to @p len bytes, at least 1, into @p data + @p offset.
    virtual int read(unsigned char* data, int offset, int len, unsigned int timeout) = 0;

    /// Receive 4 bytes into @p value, which changes only when the result is 4.
    virtual int readInt(int& value, unsigned int timeout) = 0;

    /// Receive 2 bytes into @p value, which changes only when the result is 2.
    virtual int readShort(short& value, unsigned int timeout) = 0;

    /// Receive 1 byte into @p value, which changes only when the result is 1.
    virtual int readByte(unsigned char& value, unsigned int timeout) = 0;

    /// Receive exactly @p len bytes into @p data + @p offset. The result is @p len, 0 or -1.
    virtual int readFully(unsigned char* data, int offset, int len, unsigned int timeout) = 0;

protected:
    ~AInputStream() = default;
};
