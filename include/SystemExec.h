// SPDX-License-Identifier: BSD-3-Clause
#pragma once

/// @file
/// The process runner, its signal handler and the runner that the handler works on.

#include "GorvApi.h"

#include <cstddef>
#include <poll.h>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// Runs a program as a child process with its three standard streams on pipes, in one of two ways.
///
/// A daemon takes run(), or a Child where it talks with the program meanwhile. They start it at once, print
/// nothing, touch no signal of the process and no child that others have started, and cost the same however
/// large the process is. Any number of threads may do so beside each other, and beside logins.
/// @code
/// const char* const args[] = {"df", "-h", nullptr};
/// SystemExec::Job job;
/// job.args = args;
/// job.timeoutMs = 5000;
/// SystemExec::Result result;
/// if (SystemExec::run(job, result) == SystemExec::Outcome::Ended && result.status == 0)
///     use(result.output);
/// @endcode
///
/// execute() and what goes with it is for programs that want its lines, its delay and its handler, and have
/// no other children. All that follows here is about it.
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
/// PAM modules, run() and Child have children as well, which the handler would take for the runner's: a login
/// fails or waits for the program. A program that has any of these and calls execute() nevertheless blocks
/// SIGCHLD in every thread for good. Right after execute() it sets ::se to null, under one lock for all its
/// runners, and then reads and closes the three ends and waits with waitpid(getPid()) itself.
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
    /// A program and how it begins. What the pointers here and in Job point to stays the caller's, and valid
    /// until the operation has returned.
    struct Program {
        /// The arguments, ended by a null pointer. The first, which must be there, is the program as well: a
        /// path, or a name that is looked up on the search path. A script begins with "#!".
        const char* const* args = nullptr;
        const char* folder = nullptr;       ///< Its working directory; null for the caller's.
        char* const* environment = nullptr; ///< Texts "NAME=value", ended by a null pointer; null for the
                                            ///< caller's, which no other thread may change meanwhile.
    };

    /// A program that is run to its end.
    struct Job : Program {
        std::string_view input;          ///< All that it can read from its standard input.
        std::size_t outputLimit = 65536; ///< As many bytes of each output are kept; the rest is thrown away.
        int timeoutMs = -1;              ///< Its time, in milliseconds; -1 for as long as it takes.
        pollfd stop = {-1, POLLIN, 0}; ///< Its time is over, too, when poll() reports this: an event, say, or
                                       ///< a connection that is hung up.
    };

    /// What came of a Job.
    struct Result {
        std::string output; ///< What it printed on its standard output.
        std::string error;  ///< What it printed on its standard error.
        int status = -1;    ///< How it ended, as waitpid() tells; -1 if it wasn't started or nobody knows.
        int reason = 0;     ///< Why it wasn't started, an error number of the system.
    };

    /// How a Job ended.
    enum class Outcome {
        Ended,      ///< By itself, in whatever way.
        NotStarted, ///< Not found, not executable, no such folder, out of descriptors or processes...
        Overdue     ///< It was ended, since its time was over.
    };

    /// Run @p job to its end, however much it reads or prints, or whether it reads and prints at all.
    ///
    /// The program is the first of a process group of its own. When its time is over the group gets SIGTERM,
    /// and SIGKILL two seconds later if the program is still there. What is left of the group when the
    /// program has ended gets SIGKILL in any case. A process that has left the group lives on; what it still
    /// prints isn't waited for. A program that may not be killed, as one that runs as somebody else, is
    /// waited for. The limit on descriptors (RLIMIT_NOFILE) isn't lowered below 5 meanwhile.
    ///
    /// The program begins with SIGCHLD and SIGPIPE at their defaults, SIGCHLD not blocked and no handler of
    /// the caller's, and otherwise with what a program inherits over exec. Ignore SIGPIPE if it may end
    /// before it has read its input. If SIGCHLD is ignored, or something else waits for any child, run()
    /// returns all the same, but the status is -1.
    ///
    /// The job may point into @p result, at what another program has printed. A cancellation of the thread
    /// acts here, and ends the program as Child::end() does. Throws std::bad_alloc when memory runs out, with
    /// the same effect. Either way @p result stays as it was.
    static Outcome run(const Job& job, Result& result);

    /// A program that runs while its caller does something else. One thread at a time uses it.
    /// @code
    /// SystemExec::Child child;
    /// if (child.start(program) == 0) {
    ///     use(child.getStdOut()); // until it ends
    ///     int status = -1;
    ///     if (!child.waitFor(1000, status))
    ///         status = child.end();
    /// }
    /// @endcode
    class GORV_API Child {
    public:
        Child() = default;

        /// Calls end().
        ~Child() { end(); }

        Child(const Child&) = delete;
        Child& operator=(const Child&) = delete;

        /// Start @p program as run() does, once end() has been called for the one before. A cancellation of
        /// the thread waits.
        /// @return 0, or the error number of the system that it was not started for
        int start(const Program& program) noexcept;

        /// Wait until the program has ended, at most @p timeoutMs milliseconds; -1 for as long as it takes. A
        /// signal interrupts nothing, a cancellation acts here. The program waits for whoever should read
        /// what it prints: read first, or meanwhile. Once it has ended the rest of its group gets SIGKILL,
        /// and the outputs can still be read.
        /// @return whether it has ended; @p status then tells how, as waitpid() does, or is -1 as for run()
        ///   and without a program. Otherwise @p status keeps what it held.
        bool waitFor(int timeoutMs, int& status);

        /// End the program and its group with SIGKILL, if it hasn't ended, and wait for it; close what is
        /// left of the three ends. A cancellation of the thread waits. Harmless when there is nothing to end.
        /// @return the status, as for waitFor()
        int end() noexcept;

        /// Hand the end for the input over to the caller, who closes it. That ends the input.
        /// @return the descriptor, or -1 if there is none any more. From then on getStdIn() is -1.
        int takeStdIn() { return std::exchange(m_ends[Input], -1); }

        /// Returns where to write the child's input, or -1. As the next two, it is close-on-exec, none of the
        /// standard streams' numbers, and the object's, which closes it in end().
        int getStdIn() const { return m_ends[Input]; }
        /// Returns where to read the child's output, or -1.
        int getStdOut() const { return m_ends[Output]; }
        /// Returns where to read the child's error output, or -1.
        int getStdErr() const { return m_ends[Error]; }
        /// Returns the id of the program and of its group, for kill(-getPid(), SIGTERM), say; -1 without one
        /// and once waitFor() or end() has told how it ended. Look before: kill(1) ends the system.
        int getPid() const { return m_pid; }

    private:
        friend class SystemExec;

        enum { Input, Output, Error, Watch, Count };

        GORV_LOCAL bool settle(bool isKilled) noexcept;

        int m_pid = -1;
        int m_status = -1;
        int m_ends[Count] = {-1, -1, -1, -1}; // owned; the last tells of the child's end
    };

    // From here on all is about execute().

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
    class Talk;

    friend void signalHandler(int sig);

    GORV_LOCAL void start(char** args) noexcept;
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
