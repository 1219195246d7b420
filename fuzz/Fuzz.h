// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdio>
#include <fuzzer/FuzzedDataProvider.h>
#include <string>
#include <string_view>

/// What every fuzz target shares. A target is one function, run once for each input, that drives one class
/// and compares what it does with a naive model of it.
namespace fuzz {

/// Tell what was broken and end as a crash, so that the input is kept.
[[noreturn]] void fail(const char* what, const char* file, int line);

/// The same for what differs from a text that was expected.
[[noreturn]] void failEqual(std::string_view expected, std::string_view got, const char* file, int line);

/// Send both standard output streams into nothing.
void silence();

} // namespace fuzz

#define MUST(condition)                                                                                      \
    do {                                                                                                     \
        if (!(condition))                                                                                    \
            fuzz::fail(#condition, __FILE__, __LINE__);                                                      \
    } while (false)

#define MUST_EQUAL(expected, got)                                                                            \
    do {                                                                                                     \
        if ((expected) != (got))                                                                             \
            fuzz::failEqual(expected, got, __FILE__, __LINE__);                                              \
    } while (false)

/// What a target prepares once, if it has anything to prepare.
#define FUZZ_SETUP extern "C" int LLVMFuzzerInitialize(int*, char***)
#define FUZZ_TARGET extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)

FUZZ_SETUP;
FUZZ_TARGET;
