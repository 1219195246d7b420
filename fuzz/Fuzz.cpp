#include "Fuzz.h"

#include <cstdlib>
#include <unistd.h>

namespace fuzz {

void fail(const char* what, const char* file, int line)
{
    ::dprintf(STDERR_FILENO, "%s:%d: broken: %s\n", file, line, what);
    std::abort();
}

void silence()
{
    stdout = std::fopen("/dev/null", "w");
    stderr = stdout;
}

} // namespace fuzz
