#pragma once

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

    /// The name of the call that failed, in this process or a child; empty when there were fewer.
    static std::string failedCall();

private:
    static void setArmed(bool armed);
};
