// SPDX-License-Identifier: BSD-3-Clause
#include "Fuzz.h"

#include <cstdlib>
#include <unistd.h>

namespace fuzz {

void fail(const char* what, const char* file, int line)
{
    ::dprintf(STDERR_FILENO, "%s:%d: broken: %s\n", file, line, what);
    std::abort();
}

void failEqual(std::string_view expected, std::string_view got, const char* file, int line)
{
    ::dprintf(STDERR_FILENO, "expected: %.*s\n     got: %.*s\n", static_cast<int>(expected.size()),
              expected.data(), static_cast<int>(got.size()), got.data());
    fail("the texts are equal", file, line);
}

void silence()
{
    stdout = std::fopen("/dev/null", "w");
    stderr = stdout;
}

} // namespace fuzz
