// SPDX-License-Identifier: BSD-3-Clause
// Options and their values, as if called: serverd ignored -port 7578 7579 -trace --verbose

#include "CommandLine.h"

#include <cstdio>

int main()
{
    const char* words[] = {"serverd", "ignored", "-port", "7578", "7579", "-trace", "--verbose", nullptr};
    CommandLine options(7, const_cast<char**>(words)); // a program passes its own argc and argv

    std::printf("port: %s\n", options.getArg("port")); // the first value
    int port = 4711;                                   // the default
    if (options.getInt("port", 1, 65535, port))
        std::printf("port as a number: %d\n", port);
    std::printf("trace: %d, level: %s\n", options.hasArg("trace"), options.getArg("trace", "none"));
    std::printf("verbose: %d\n", options.hasArg("-verbose")); // only one dash is taken off
    std::printf("ignored: %d, help: %d\n", options.hasArg("ignored"), options.hasArg("help"));
    if (const char* unknown = options.getUnknown({"port", "trace", "help"})) // a program would end here
        std::printf("no such option: -%s\n", unknown);
}
