// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "KEPClient.h"
#include "Monitor.h"

#include <optional>
#include <string>
#include <string_view>

class AComponentLog;
class Allowance;

/// The daemon's one client of the configuration service. Safe from any thread: a monitor guards the
/// client, but for the calls. Says nothing in the log: whoever asks knows for whom.
class Configuration {
public:
    /// Attaches to the service and offers the function "console_sessions" to everybody who calls it.
    explicit Configuration(AComponentLog& parent);
    ~Configuration();
    Configuration(const Configuration&) = delete;
    Configuration& operator=(const Configuration&) = delete;

    std::optional<std::string> get(const std::string& name);
    enum class Written { Done, NoRoom, Failed };
    /// Make the property have the value. One that wasn't there costs a property of the @p allowance.
    Written set(const std::string& name, const std::string& value, Allowance& allowance);
    bool raise(std::string event, std::string data);
    /// Holds up nobody else, however long the function takes.
    std::optional<std::string> call(const std::string& function, std::string argument);

private:
    AComponentLog& m_parent;
    Monitor m_monitor;
    KEPClient m_client;
};
