#pragma once

#include "KEPClient.h"
#include "Monitor.h"

#include <optional>
#include <string>
#include <string_view>

class AComponentLog;

/// The daemon's one client of the configuration service. Safe from any thread: a monitor guards the client.
class Configuration {
public:
    /// Attaches to the service and offers the function "console_sessions" to everybody who calls it.
    explicit Configuration(AComponentLog& parent);
    ~Configuration();
    Configuration(const Configuration&) = delete;
    Configuration& operator=(const Configuration&) = delete;

    std::optional<std::string> get(const std::string& name);
    /// Returns whether the property has the value afterwards.
    bool set(const std::string& name, const std::string& value);
    bool raise(std::string event, std::string data);
    std::optional<std::string> call(const std::string& function, std::string argument);

private:
    AComponentLog& m_parent;
    Monitor m_monitor;
    KEPClient m_client;
};
