#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

/// Runs the few programs that a console may run, one at a time. Safe from any thread, provided that every
/// thread of the process blocks SIGCHLD. Touches no child that others have started.
class Programs {
public:
    struct Program {
        std::string name;
        std::vector<std::string> arguments; ///< The path first.
    };
    enum class Outcome { Finished, NotAllowed, Busy, Failed };

    /// These programs, each for at most so long.
    Programs(std::vector<Program> programs, int limitSeconds);

    /// Run the program of that name to its end and append what it printed, at most @p limit bytes, to @p
    /// output. When its time is over or @p isCancelled, it has failed. It ends
    /// with its process group; what has left that lives on, and isn't read any more.
    Outcome run(std::string_view name, std::size_t limit, const std::function<bool()>& isCancelled,
                std::string& output);

private:
    const std::vector<Program> m_programs;
    const int m_limitSeconds;
    std::mutex m_running; // held by the one that runs
};
