#pragma once

#include "Monitor.h"

#include <functional>
#include <string>
#include <string_view>

/// Runs the few programs that a console may run, one at a time. Safe from any thread, provided that every
/// thread of the process blocks SIGCHLD, and that other children are started and reaped under
/// PAMHelper::getMonitor() only, as PAM modules do.
class Programs {
public:
    enum class Outcome { Finished, NotAllowed, Busy, Failed };

    /// Run the program of that name to its end and append what it printed, at most @p limit bytes, to @p
    /// output. Gives up when its time is over or @p isCancelled. A program that was given up keeps others out
    /// until it ends.
    Outcome run(std::string_view name, std::size_t limit, const std::function<bool()>& isCancelled,
                std::string& output);

private:
    bool begin();

    Monitor m_monitor;
    bool m_running = false;
    bool m_givenUp = false; // its child is still to be reaped
};
