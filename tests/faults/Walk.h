// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "Monitor.h"
#include "PAMHelper.h"
#include "faults/Faults.h"

#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

/// What other threads do when the walker lets them through: each starts when the one before is done, or waits
/// for the walker.
struct Intrusion {
    std::vector<std::function<void()>> acts;
    std::set<std::string> mustPass = {}; ///< The calls of the walker at which nobody may wait; "" for each.
};

/// The objects of one walk.
class Road {
public:
    virtual ~Road() = default;
    /// On a thread of its own.
    virtual void approach() {}
    /// On the same thread, with one call disturbed.
    virtual void walk() = 0;
    /// Use the objects once more, undisturbed. Returns what came of it all.
    virtual std::string arrive() = 0;

    virtual std::vector<Intrusion> intrusions() { return {}; }
    /// What must be free after the walk, besides the standard streams and the monitors of the logins.
    virtual std::vector<FILE*> streams() { return {}; }
    virtual std::vector<Monitor*> monitors() { return {}; }
};

struct Walk {
    std::string name;
    std::function<std::unique_ptr<Road>()> begin;
    std::string undisturbed; ///< What comes of it, as a regular expression, and so do the next two.
    /// By the name of the call that fails. One that isn't named, or is only interrupted, changes nothing.
    std::map<std::string, std::string> failures = {};
    /// By the name of the call in which a cancellation acts; elsewhere it waits until the road's end.
    std::map<std::string, std::string> cancellations = {};
    bool canFail = true;
};

/// Walk a road once for each of its calls and each thing that can happen to it, and look at what is left.
void walkEachCall(const Walk& walk);
