// SPDX-License-Identifier: BSD-3-Clause
// Text through a sorting program, and a program that is watched while it runs.

#include "SystemExec.h"

#include <cstdio>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>

namespace {

void sortLines()
{
    const char* const args[] = {"sort", "-r", nullptr};
    SystemExec::Job job;
    job.args = args;
    job.input = "alice\ndave\ncarol\n";
    job.timeoutMs = 5000;
    SystemExec::Result result;
    switch (SystemExec::run(job, result)) {
    case SystemExec::Outcome::Ended:
        std::printf("%sexit status: %d\n", result.output.c_str(), WEXITSTATUS(result.status));
        break;
    case SystemExec::Outcome::NotStarted:
        std::printf("not started: %s\n", std::strerror(result.reason));
        break;
    case SystemExec::Outcome::Overdue:
        std::printf("not ready in five seconds\n");
    }
}

void watch()
{
    const char* const args[] = {"sh", "-c", "echo ready; exec sleep 60", nullptr};
    SystemExec::Program program;
    program.args = args;
    SystemExec::Child child; // ends it if nothing else does
    if (const int error = child.start(program); error != 0) {
        std::printf("not started: %s\n", std::strerror(error));
        return;
    }
    char line[64];
    const ssize_t count = ::read(child.getStdOut(), line, sizeof line);
    std::printf("it says: %.*s", count > 0 ? static_cast<int>(count) : 0, line);
    int status = -1;
    std::printf("%s\n", child.waitFor(50, status) ? "it has ended" : "it runs");
    status = child.end();
    std::printf("%s\n", WIFSIGNALED(status) ? "it was ended" : "it ended by itself");
}

} // namespace

int main()
{
    sortLines();
    watch();
}
