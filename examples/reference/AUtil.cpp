// SPDX-License-Identifier: BSD-3-Clause
// A default for the environment, an array of heap strings, and a random key.

#include "AUtil.h"

#include <cstdio>
#include <cstdlib>

int main()
{
    ::setenv("CONSOLE_HOST", "controller", 1);
    std::printf("host: %s\n", AUtil::getEnv("CONSOLE_HOST", "localhost")); // the environment's own string
    ::unsetenv("CONSOLE_PORT");
    char* port = AUtil::getEnv("CONSOLE_PORT", "4711"); // not set: a copy that is ours
    std::printf("port: %s\n", port);
    std::free(port);

    std::vector<char*> names = {new char('a'), new char('b'), nullptr};
    AUtil::clearStringArray(names);
    std::printf("names left: %zu\n", names.size());

    const std::string key = AUtil::generateRandomKey();
    std::printf("key: %zu characters, new each time: %d\n", key.size(), key != AUtil::generateRandomKey());
}
