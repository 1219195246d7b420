// SPDX-License-Identifier: BSD-3-Clause
#pragma once

/// @file
/// Visibility and compiler-check attributes that the public headers of this library use. A host whose
/// std::string is another one doesn't compile.

#include <cstddef> // and with it which std::string this is

#if !_GLIBCXX_USE_CXX11_ABI
#error "gorvUtil passes std::string as g++ 5 and later have it: leave _GLIBCXX_USE_CXX11_ABI at 1"
#endif

/// Marks what the library exports.
#define GORV_API __attribute__((visibility("default")))

/// Keeps a private member of an exported class inside the library.
#define GORV_LOCAL __attribute__((visibility("hidden")))

/// Lets the compiler check a printf-style call. Positions count from 1, the object of a member function
/// included. A @p firstArgument of 0 checks the format alone (operations that take a va_list).
#define GORV_PRINTF(formatPosition, firstArgument)                                                           \
    __attribute__((format(printf, formatPosition, firstArgument)))

/// Defined where a caller compiles the check in whether a message is wanted at all: one that nobody reads
/// costs no call then. Needs g++'s way of passing variable arguments on; others call the library, which
/// checks too.
#if defined(__OPTIMIZE__) && defined(__GNUC__) && !defined(__clang__) && !defined(gorvUtil_EXPORTS)
#define GORV_CHECKS_INLINE
#define GORV_CHECK_INLINE __attribute__((gnu_inline, always_inline))
#endif
