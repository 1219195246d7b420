// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdlib>

/// Whether an emulator runs the test: its memory is part of the process, and it knows select() up to 1024
/// only.
inline bool isEmulated()
{
    return std::getenv("GORV_TEST_EMULATED") != nullptr;
}
