// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <dlfcn.h>

/// Begins a program's own definition of a function that a shared library has, too: everybody's calls go to
/// it.
#define INTERPOSED extern "C" __attribute__((visibility("default")))

/// The definition that such a one stands before: nextDefinition<decltype(::fork)>("fork").
template <typename Function>
Function* nextDefinition(const char* name)
{
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}
