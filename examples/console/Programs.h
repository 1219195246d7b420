#pragma once

#include "Monitor.h"

#include <string>
#include <string_view>

/// Runs the few programs that a console may run, one at a time. Safe from any thread, provided that every
/// thread of the process blocks SIGCHLD.
class Programs {
public:
    enum class Outcome { Finished, NotAllowed, Busy, Failed };

    /// Run the program of that name to its end and append what it printed, at most @p limit bytes, to @p
    /// output.
    Outcome run(std::string_view name, std::size_t limit, std::string& output);

private:
    Monitor m_monitor;
    bool m_running = false;
};
