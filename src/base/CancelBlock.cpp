// SPDX-License-Identifier: BSD-3-Clause
#include "base/CancelBlock.h"

#include <pthread.h>

// Not inline: with so many of them a call each is smaller.

CancelBlock::CancelBlock() noexcept
{
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before);
}

CancelBlock::~CancelBlock()
{
    pthread_setcancelstate(m_before, nullptr);
}
