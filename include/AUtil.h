// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "GorvApi.h"

#include <string>
#include <vector>

/// Small helpers that programs share.
///
/// @include examples/reference/AUtil.cpp
/// @verbinclude examples/reference/AUtil.out
class GORV_API AUtil {
public:
    AUtil() = delete;

    /// Look @p name up in the environment, which no other thread may change meanwhile. A null name is never
    /// set.
    /// @return the environment's own string if the variable is set. Otherwise a copy of @p defaultValue that
    /// the caller releases with free(), or null if there is no default or no memory. It is the environment's
    /// own exactly if getenv(@p name) returns that very pointer.
    static char* getEnv(const char* name, const char* defaultValue);

    /// Release every string with the single-object delete and empty the vector. Null elements are skipped.
    /// The strings come from new or operator new(), not from new[] or malloc().
    static void clearStringArray(std::vector<char*>& strings);
    /// The same for constant strings.
    static void clearStringArray(std::vector<const char*>& strings);

    /// Make a key of 32 lowercase hexadecimal characters: 128 bits of "/dev/urandom". Safe from any thread.
    ///
    /// Without the device, or a descriptor left to open it, the key comes from srand() and rand(), seeded
    /// with process id, time and a counter. Such a key can be guessed, changes the program's rand() sequence,
    /// and two threads may get the same one. Nothing tells the caller: where a key protects something, make
    /// sure that the device is there and that descriptors are. Throws std::bad_alloc when memory runs out.
    static std::string generateRandomKey();
};
