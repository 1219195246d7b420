#pragma once

/// @file
/// The process runner, its signal handler and the runner that the handler works on.

#include "GorvApi.h"

#include <string>
#include <vector>

/// Runs a program as a child process with its three standard streams on pipes.
///
/// The design allows one outstanding child per process: execute() makes its runner the one that the SIGCHLD
/// handler works on. Use a runner from one thread, and keep it alive until getStdOut() is -1. A program that
/// can't do so sets ::se to null first; the pipe ends and the child are then its own to close and to wait
/// for. So are the pipe ends of a runner that execute() of another has replaced.
///
/// The handler closes the caller's pipe ends as soon as the child ends, and what was not read yet is lost.
/// Block SIGCHLD before execute() and until all is read, in every thread of the process (a thread inherits
/// the mask of its creator):
/// @code
/// sigset_t child, before;
/// sigemptyset(&child);
/// sigaddset(&child, SIGCHLD);
/// pthread_sigmask(SIG_BLOCK, &child, &before);
/// runner.execute();
/// for (ssize_t count; (count = read(runner.getStdOut(), buffer, sizeof buffer)) > 0;)
///     use(buffer, count);
/// pthread_sigmask(SIG_SETMASK, &before, nullptr); // from here on the handler may close and reap
/// @endcode
/// A child that fills one pipe waits until it is read: poll() both outputs if both may carry much. Ignore
/// SIGPIPE if the child may end before it has read its input.
///
/// PAM modules start children as well, which the handler would take for the runner's, and a login fails or
/// waits for the program. A program that has logins blocks SIGCHLD in every thread for good and never calls
/// signalHandler(). Right after execute() it sets ::se to null, and then reads and closes the three ends and
/// waits with waitpid(getPid()) itself. Setting ::se takes SIGCHLD blocked in every thread, and where several
/// threads have runners one lock of the program's round execute() and it.
///
/// A child that doesn't end by itself is ended with kill(runner.getPid(), SIGKILL) while SIGCHLD is blocked
/// in every thread: once a child has been reaped, its id may be a stranger's. Only if getPid() is above 0:
/// -1 would be everybody. What the child has started lives on and keeps the pipes open, so don't read to
/// their end after that.
///
/// The child stays in the caller's process group and inherits what a program inherits over exec, with SIGCHLD
/// and SIGPIPE back at their defaults and SIGCHLD not blocked. Signal handlers of the caller never run in it.
/// Until the exec, for a second, it holds copies of all the caller's descriptors: a connection that the
/// caller closes meanwhile ends only after that.
///
/// @include examples/reference/SystemExec.cpp
/// @verbinclude examples/reference/SystemExec.out
class GORV_API SystemExec {
public:
    /// A runner without a command; all three pipe ends are -1.
    SystemExec();

    /// Closes no descriptor, and leaves ::se as it is. With a child that has not ended nobody closes the pipe
    /// ends any more. May not run beside signalHandler() in another thread.
    ~SystemExec();

    SystemExec(const SystemExec&) = delete;
    SystemExec& operator=(const SystemExec&) = delete;

    /// Choose the program, as a path or a name that is looked up on the search path. It is one file name and
    /// is not split at blanks. Copied. Throws std::bad_alloc when memory runs out.
    void setCommand(std::string& command);

    /// Choose the child's arguments for execute(): @p args[0] is its name as it sees it, a null pointer ends
    /// the array. The array stays the caller's and valid until execute() has returned. With null, the
    /// default, the command is the only argument.
    void setArgList(char** args);

    /// Start the child, which runs the command after a second's delay. Again only once getStdOut() is -1, or
    /// with SIGCHLD blocked in every thread. A cancellation of the thread waits.
    ///
    /// First closes the pipe ends that this runner still holds if ::se is this runner, and forgets them if it
    /// isn't. Writes its progress to standard output and flushes it; the child is looked after while that
    /// output is held up. Replaces the process's SIGCHLD handler with signalHandler(), also where the program
    /// has a function of that name itself. dlclose() leaves the library loaded.
    ///
    /// No result: when a pipe or the child can't be made, a line on standard error tells so and the pipe ends
    /// are -1. When the program can't be run, the child says so on its two output pipes, which then end, and
    /// ends with exit(1). That runs the exit handlers of the caller's program in the child, with its standard
    /// streams on "/dev/null" and every other descriptor closed.
    void execute();

    /// The same, the program being that of setCommand(), with these arguments instead of those of
    /// setArgList(): @p args[0] is the child's name as it sees it. With none, the command is the only
    /// argument. Throws std::bad_alloc when memory runs out, before anything is done.
    void execute(const std::vector<std::string>& args);

    /// Returns where to read the child's output, or -1 before execute(), after one that failed, and after the
    /// child has ended.
    int getStdOut();

    /// Returns where to write the child's input, or -1 as for getStdOut(). Close it to end the input. The
    /// number still counts as the runner's and is closed again when the child ends, or by the next execute();
    /// if it could be in use for another file by then, put "/dev/null" in its place with dup2() instead.
    int getStdIn();

    /// Returns where to read the child's error output, or -1 as for getStdOut().
    int getStdErr();

    /// Returns the id of the child, also when it has ended, or -1 before execute() and after one that failed.
    int getPid();

    /// Tell how the child of execute() ended, as waitpid() does, in @p status.
    /// @return whether signalHandler() has reaped it, which may come a moment after getStdOut() is -1. False,
    /// with @p status unchanged, before that, for a child that the program waited for itself, and once
    /// another runner has started a child: unless the system gave that one the same id.
    bool getStatus(int& status);

private:
    friend void signalHandler(int sig);

    GORV_LOCAL void start(char** args);
    GORV_LOCAL void leaveLastChild();
    GORV_LOCAL void enterHandler();
    GORV_LOCAL void leaveHandler();
    GORV_LOCAL void closePipes();

    std::string m_command;
    int m_stdOut;
    int m_stdIn;
    int m_stdErr;
    int m_pid;
    char** m_argList; // not owned
};

/// The runner whose execute() ran last, or null. The SIGCHLD handler works on it; nothing resets it.
extern GORV_API SystemExec* se;

/// The SIGCHLD handler that SystemExec::execute() installs: closes the pipe ends of ::se, whichever child has
/// ended, and waits for any one child. Once it has closed them, it never touches that runner again until its
/// next execute(). Does nothing for another signal or while ::se is null. Makes only async-signal-safe calls
/// and keeps errno. A child that is stopped or continued doesn't raise it.
///
/// A child that the program waits for itself (system(), popen(), waitpid()) may be reaped here. If the
/// program was faster and has another child, the handler waits, and holds its thread up, until that one ends.
/// Two children that end together may raise one signal, and one of them is then left for the next.
GORV_API void signalHandler(int sig);
