// SPDX-License-Identifier: BSD-3-Clause
#include "base/FileDescriptor.h"

FileDescriptor::~FileDescriptor()
{
    if (!isOpen())
        return;
    const CancelBlock block; // nothing may leave a destructor
    ::close(m_number);
}
