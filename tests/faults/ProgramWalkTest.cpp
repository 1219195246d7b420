// SPDX-License-Identifier: BSD-3-Clause
#include "KEPClient.h"
#include "SystemExec.h"
#include "base/FileDescriptor.h"
#include "faults/Walk.h"
#include "support/Files.h"

#include <csignal>
#include <gtest/gtest.h>
#include <kep.h>
#include <sys/wait.h>

namespace {

const std::string s_echo = "/bin/../bin/../bin/../bin/../bin/echo";

/// A program is run to its end, with a pipe at the number of the standard input.
struct ProgramRun : Road {
    /// The handler is walked rather than execute(): the child goes on beside it.
    explicit ProgramRun(bool isHandler) : m_isHandler(isHandler)
    {
        ::close(STDIN_FILENO);
        m_command = s_echo;
    }
    ~ProgramRun() override
    {
        ::dup2(m_input, STDIN_FILENO);
        ::close(m_input);
        se = nullptr;
    }

    void approach() override
    {
        if (m_isHandler)
            execute();
    }
    void walk() override
    {
        if (m_isHandler)
            return m_runner.getStdOut() < 0 ? void() : signalHandler(SIGCHLD);
        try {
            execute();
        } catch (const std::bad_alloc&) {
        }
    }
    std::string arrive() override
    {
        std::string text = m_isHandler ? m_text : readAll();
        if (!m_isHandler && !text.empty())
            signalHandler(SIGCHLD);
        if (::waitpid(m_runner.getPid(), nullptr, 0) > 0) // when wait() has failed
            text += "not reaped";
        EXPECT_EQ(m_runner.getStdOut(), -1);
        return (text.empty() ? "none" : text) + m_errors.text();
    }

    void execute()
    {
        m_runner.setCommand(m_command);
        m_runner.execute({m_command, m_command});
        if (m_isHandler)
            m_text = readAll();
    }
    /// Returns what the child has printed, when it has ended.
    std::string readAll()
    {
        if (m_runner.getStdOut() < 0)
            return "";
        std::string text = readFile("/dev/fd/" + std::to_string(m_runner.getStdOut()));
        text += readFile("/dev/fd/" + std::to_string(m_runner.getStdErr()));
        siginfo_t child{};
        ::waitid(P_PID, static_cast<id_t>(m_runner.getPid()), &child, WEXITED | WNOWAIT);
        return text;
    }

    const bool m_isHandler;
    CapturedStream m_output{stdout}, m_errors{stderr};
    const int m_input = ::dup(STDIN_FILENO);
    SystemExec m_runner;
    std::string m_command, m_text;
};

TEST(ProgramWalkTest, NothingThatHappensToAProgramRunLeavesAPipeOrAChild)
{
    sigset_t childEnded; // the handler is called by hand
    sigemptyset(&childEnded);
    sigaddset(&childEnded, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &childEnded, nullptr);
    const std::string begun = " SystemExec: " + s_echo;
    const std::string failure = "SystemExec child: " + s_echo + ": execl Error!:";
    walkEachCall({"run",
                  [] { return std::make_unique<ProgramRun>(false); },
                  s_echo + "\n",
                  {{"malloc", "none"},
                   {"new", "none"},
                   {"pipe2", "none" + begun + "\n"},
                   {"fork", "none" + begun + " - Fork error. Exiting.\n"},
                   {"dup2", failure + "SystemExec child: Unable to exec.: Device or resource busy\n"},
                   {"execvp", failure + "SystemExec child: Unable to exec.: No such file or directory\n"}}});
    walkEachCall({"end of a run",
                  [] { return std::make_unique<ProgramRun>(true); },
                  s_echo + "\n",
                  {{"wait", s_echo + "\nnot reaped"}}});
}

/// A program is run beside others, with a pipe at the number of the standard input: to its end, or by hand.
struct Job : Road {
    explicit Job(bool isByHand) : m_isByHand(isByHand)
    {
        ::close(STDIN_FILENO);
        m_job.args = m_args;
        m_job.environment = m_environment; // others change the process's
        m_job.input = s_echo;
    }
    ~Job() override
    {
        ::dup2(m_input, STDIN_FILENO);
        ::close(m_input);
    }

    void walk() override
    {
        m_outcome = "cancelled";
        try {
            m_outcome = m_isByHand ? wait() : run();
        } catch (const std::bad_alloc&) {
            m_outcome = "no memory";
        }
    }
    std::string arrive() override
    {
        const std::string outcome = m_outcome;
        walk();
        EXPECT_EQ(m_outcome, "0, " + s_echo);
        m_child.end();
        return outcome;
    }

    std::string run()
    {
        if (SystemExec::run(m_job, m_result) == SystemExec::Outcome::NotStarted)
            return "error " + std::to_string(m_result.reason);
        return std::to_string(m_result.status) + ", " + m_result.output + m_result.error;
    }
    std::string wait()
    {
        const int error = m_child.start(m_job);
        if (error != 0)
            return "error " + std::to_string(error);
        FileDescriptor(m_child.takeStdIn());
        int status = -1;
        return m_child.waitFor(-1, status) ? std::to_string(status) + ", " + s_echo : "overdue";
    }

    const bool m_isByHand;
    const int m_input = ::dup(STDIN_FILENO);
    const char* const m_args[2] = {"/bin/cat", nullptr};
    char* m_environment[1] = {nullptr};
    SystemExec::Job m_job;
    SystemExec::Result m_result;
    SystemExec::Child m_child;
    std::string m_outcome;
};

TEST(ProgramWalkTest, NothingThatHappensToAJobLeavesAPipeOrAChild)
{
    const std::string undisturbed = "0, " + s_echo;
    const std::map<std::string, std::string> beginnings = {
        {"new", undisturbed + "|no memory"}, // for what is told here as well
        {"malloc", undisturbed + "|no memory"},
        {"pipe2", "error 24"},
        {"fcntl", undisturbed}, // where only what tells of the end is missing
        {"posix_spawn_file_actions_adddup2", "error 12"},
        {"posix_spawnp", "error 11"},
    };
    std::map<std::string, std::string> failures = {{"write", "0, "}, {"read", "0, (" + s_echo + ")?"}};
    failures.insert(beginnings.begin(), beginnings.end());
    walkEachCall({"job",
                  [] { return std::make_unique<Job>(false); },
                  undisturbed,
                  failures,
                  {{"poll", "cancelled"}, {"read", "cancelled"}, {"write", "cancelled"}}});
    walkEachCall({"child",
                  [] { return std::make_unique<Job>(true); },
                  undisturbed,
                  beginnings,
                  {{"poll", "cancelled"}}});
}

/// Properties of each type are written and read.
struct Properties : Road {
    void walk() override
    {
        try {
            m_changes = m_client.updateProperty("text", m_long.c_str(), false) > 0;
            m_changes += m_client.updateProperty("number", 7, false) > 0;
            m_client.getProperty("text", m_text);
            m_client.getProperty("number", m_number);
        } catch (const std::bad_alloc&) {
        }
    }
    std::string arrive() override
    {
        kep_config_set_str_n("text", "", 1); // for the next
        kep_config_set_int("number", 0, true);
        EXPECT_TRUE(m_text.empty() || m_text == m_long);
        return std::to_string(m_changes) + " changes, " + std::to_string(m_text.size()) + " bytes, " +
               std::to_string(m_number);
    }

    char m_name[5] = "walk";
    KEPClient m_client{m_name, 1};
    const std::string m_long = std::string(300, 'x');
    std::string m_text;
    int m_changes = 0, m_number = 0;
};

TEST(ProgramWalkTest, NothingThatHappensToAPropertyLosesAnArray)
{
    kep_config_set_str_n("text", "", 1);
    walkEachCall({"property",
                  [] { return std::make_unique<Properties>(); },
                  "2 changes, 300 bytes, 7",
                  {{"malloc", ".*"},
                   {"new", ".*"},
                   {"kep_config_get", "2 changes, (0|300) bytes, 7"},
                   {"kep_config_get_int", "2 changes, 300 bytes, [07]"},
                   {"kep_config_set_str_n", "1 changes, 0 bytes, 7"},
                   {"kep_config_set_int", "1 changes, 300 bytes, 0"}}});
}

} // namespace
