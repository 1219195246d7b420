// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <atomic>
#include <string>

/// Disturbs one call of this thread to the system, its allocator or another library. The program's
/// definitions of those calls stand before everybody's.
class Faults {
public:
    enum class Kind {
        Failure,
        Interruption, ///< A signal came.
        Cancellation, ///< One of the thread is pending.
        Preemption    ///< Others get through first: s_letThrough.
    };

    /// From now on the call with this number, counted from 0 among those that @p kind can happen to, is
    /// disturbed, none with a negative number. A child of this process goes on counting by itself.
    Faults(Kind kind, int number);
    ~Faults();

    /// The name of the call that was disturbed, be it a child's; empty when there were fewer.
    static std::string disturbedCall();
    /// The name of the call in which a cancellation acted.
    static const char* cancelledIn();

    static Kind kind();
    /// Is given the name of the call.
    static inline void (*s_letThrough)(const char* call) = nullptr;
    /// How many PAM transactions and sessions have been started and not ended, and objects made with new.
    static inline std::atomic<int> s_transactions = 0, s_sessions = 0, s_objects = 0;
    /// How often somebody closed a number that wasn't open, or used a stream without a lock.
    static inline std::atomic<int> s_wrongCloses = 0, s_wrongUses = 0;
};
