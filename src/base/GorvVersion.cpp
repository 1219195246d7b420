// SPDX-License-Identifier: BSD-3-Clause
#include "GorvVersion.h"

int gorvVersion() noexcept
{
    return GORV_VERSION;
}
