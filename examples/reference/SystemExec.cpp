// Text through a sorting child process, without losing any of it to the SIGCHLD handler.

#include "SystemExec.h"

#include <csignal>
#include <cstdio>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>

int main()
{
    sigset_t child;
    sigset_t before;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &child, &before); // the handler closes the pipes when the child ends

    static SystemExec s_runner; // outlives its child
    std::string command = "sort";
    s_runner.setCommand(command);
    s_runner.execute({"sort", "-r"}); // no result: -1 for the child tells of a failure

    constexpr std::string_view kInput = "alice\ndave\ncarol\n";
    if (s_runner.getPid() < 0 || ::write(s_runner.getStdIn(), kInput.data(), kInput.size()) < 0)
        return 1;
    ::close(s_runner.getStdIn()); // the end of the input
    char buffer[64];
    for (ssize_t count = 0; (count = ::read(s_runner.getStdOut(), buffer, sizeof buffer)) > 0;)
        std::printf("%.*s", static_cast<int>(count), buffer);

    int status = 0;
    while (!s_runner.getStatus(status))
        sigsuspend(&before); // lets the handler close and reap
    std::printf("exit status: %d\n", WEXITSTATUS(status));
}
