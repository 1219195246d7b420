// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <pthread.h>

/// Keeps a cancellation of the calling thread waiting for one scope.
class CancelBlock {
public:
    CancelBlock() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before); }
    ~CancelBlock() { pthread_setcancelstate(m_before, nullptr); }

    CancelBlock(const CancelBlock&) = delete;
    CancelBlock& operator=(const CancelBlock&) = delete;

private:
    int m_before = 0;
};
