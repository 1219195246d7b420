// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <utility>

/// Runs an action at the end of a scope, however it is left: a thread that is cancelled leaves it, too.
template <typename Action>
class AtExit {
public:
    explicit AtExit(Action action) : m_action(std::move(action)) {}
    ~AtExit() { m_action(); }

    AtExit(const AtExit&) = delete;
    AtExit& operator=(const AtExit&) = delete;

private:
    Action m_action;
};
