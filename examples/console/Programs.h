// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

/// Runs the few programs that a console may run, one at a time. Safe from any thread.
class Programs {
public:
    struct Program {
        std::string name;
        std::vector<const char*> arguments; ///< The path first, a null pointer last.
    };
    enum class Outcome { Finished, NotAllowed, Busy, Failed };

    /// These programs, each for at most so long.
    Programs(std::vector<Program> programs, int limitSeconds);

    /// Run the program of that name to its end and put what it printed, at most @p limit bytes, into @p
    /// output. When its time is over or @p connection is shut down or reset, it has failed. It ends with its
    /// process group; what has left that lives on, and isn't read any more.
    Outcome run(std::string_view name, std::size_t limit, int connection, std::string& output);

private:
    const std::vector<Program> m_programs;
    const int m_limitSeconds;
    std::mutex m_running; // held by the one that runs
};
