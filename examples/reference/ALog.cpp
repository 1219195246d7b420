// SPDX-License-Identifier: BSD-3-Clause
// A log on standard output: what a line holds, and what switches it off.

#include "ALog.h"

#include <cstdio>

int main()
{
    ALog log("consoled", stdout);
    log.setShowTimestamp(false); // a line would start with "11/ 6/2025 14:03:59 "
    log.print("listening on port %d\n", 4711);
    log.print(ALog::WARNING, "%s\n", "the level changes nothing");
    log.print("without a line end, ");
    log.print("the next line goes on behind this one\n");

    // What a daemon does on SIGHUP once its file was moved aside; a failure keeps the old stream.
    if (log.reopenOutputFile("/no/such/folder/consoled.log") != 0)
        log.print("still here\n");

    // A file that can't be opened would make the next line open "debug.log".
    if (log.setOutputFile("/no/such/folder/consoled.log") != 0)
        log.setEnabled(false);
    log.print("written nowhere\n");
    std::printf("the log is %s\n", log.getEnabled() ? "on" : "off");
}
