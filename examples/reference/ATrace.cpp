// SPDX-License-Identifier: BSD-3-Clause
// Lines up to a threshold go into a trace file, which is then shown without the stamps.

#include "ATrace.h"

#include <cstdio>
#include <string>
#include <unistd.h>

int main()
{
    char path[] = "/tmp/trace-XXXXXX";
    const int file = mkstemp(path);
    if (file < 0)
        return 1;
    ::close(file);

    ATrace trace;
    gTrace = &trace;
    trace.Init(2, path); // writes its start line through gTrace
    gTrace->TraceLog(0, "level 0 is always written\n");
    gTrace->TraceLog(2, "%d clients\n", 3);
    gTrace->TraceLog(3, "above the threshold\n");
    trace.Reopen(path); // what a daemon does on SIGHUP once its file was moved aside; keeps what is there
    gTrace->TraceLog(1, "reopened\n");
    trace.Close(); // the next line would open the file again and append

    FILE* lines = std::fopen(path, "re");
    constexpr std::size_t kStampLength = 24; // "2025/11/06 14:03:59_123 "
    for (char line[256]; lines != nullptr && std::fgets(line, sizeof line, lines) != nullptr;)
        std::fputs(std::string(line).substr(kStampLength).c_str(), stdout);
    if (lines != nullptr)
        std::fclose(lines);
    ::unlink(path);
}
