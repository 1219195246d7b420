#pragma once

/// @file
/// Visibility and compiler-check attributes that the public headers of this library use.

/// Marks what the library exports.
#define GORV_API __attribute__((visibility("default")))

/// Keeps a private member of an exported class inside the library.
#define GORV_LOCAL __attribute__((visibility("hidden")))

/// Lets the compiler check a printf-style call. Positions count from 1, the object of a member function
/// included. A @p firstArgument of 0 checks the format alone (operations that take a va_list).
#define GORV_PRINTF(formatPosition, firstArgument)                                                           \
    __attribute__((format(printf, formatPosition, firstArgument)))
