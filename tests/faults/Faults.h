#pragma once

#include <string>

/// Makes one call of this thread to the system or its allocator fail. The program's definitions of those
/// calls stand before everybody's.
class Faults {
public:
    enum class Kind { Failure, Interruption };

    /// From now on the call with this number, counted from 0, fails, none with a negative number; with
    /// Interruption it is only told that a signal came. A child of this process goes on counting by itself.
    Faults(Kind kind, int number);
    ~Faults();

    /// The name of the call that failed, be it a child's; empty when there were fewer.
    static std::string failedCall();
    /// How many PAM transactions have been started and not ended.
    static inline int s_transactions = 0;
};
