#pragma once

#include <set>
#include <string>

/// Makes one call of this thread to the system or its allocator fail. The program's definitions of those
/// calls stand before everybody's.
class Faults {
public:
    enum class Kind { Failure, Interruption };

    /// From now on the call with this number, counted from 0, fails; with Interruption it is only told that a
    /// signal came. A child of this process goes on counting by itself.
    Faults(Kind kind, int number);
    ~Faults();
    Faults(const Faults&) = delete;
    Faults& operator=(const Faults&) = delete;

    /// Do something for the test itself, which nothing disturbs.
    template <typename Step>
    static void undisturbed(Step step) {
        setArmed(false);
        step();
        setArmed(true);
    }

    /// The names of the calls that failed, in this process and a child of it; none when there were fewer.
    static std::set<std::string> failedCalls();

private:
    static void setArmed(bool armed);
};
