// SPDX-License-Identifier: BSD-3-Clause
#include "Configuration.h"

#include "AComponentLog.h"
#include "Admission.h"
#include "Protocol.h"

#include <cstdio>

namespace {

constexpr int kClientId = 1;

/// The remote function: how many users there are. The service calls it on whatever thread it likes. The
/// registry of PAMHelper would tell as well, but only between two PAM steps.
int countSessions(int* size, int maxReplySize, void* /*request*/, void* reply)
{
    *size = std::snprintf(static_cast<char*>(reply), static_cast<std::size_t>(maxReplySize), "%d",
                          Admission::users());
    return *size < maxReplySize ? 0 : -1;
}

int (*s_countSessions)(int*, int, void*, void*) = countSessions;

} // namespace

Configuration::Configuration(AComponentLog& parent) : m_parent(parent), m_client("consoled", kClientId)
{
    m_client.setLog(m_parent);
    m_client.initialize();
    m_client.registerCallback("console_sessions", &s_countSessions);
    m_client.getLog().setEnabled(false); // its lines name nobody
}

Configuration::~Configuration()
{
    m_parent.removeChildLog(m_client.getLog());
}

std::optional<std::string> Configuration::get(const std::string& name)
{
    const MonitorLock lock = m_monitor.acquireLock();
    std::string value;
    return m_client.getProperty(name.c_str(), value) ? std::optional(std::move(value)) : std::nullopt;
}

Configuration::Written Configuration::set(const std::string& name, const std::string& value,
                                          Allowance& allowance)
{
    const MonitorLock lock = m_monitor.acquireLock();
    std::string before;
    const bool isNew = !m_client.getProperty(name.c_str(), before);
    if (isNew && !allowance.takeProperty())
        return Written::NoRoom;
    if (m_client.updateProperty(name.c_str(), value.c_str(), true) >= 0)
        return Written::Done;
    if (isNew)
        allowance.giveBackProperty();
    return Written::Failed;
}

bool Configuration::raise(std::string event, std::string data)
{
    const MonitorLock lock = m_monitor.acquireLock();
    return m_client.notifyEvent(event.data(), static_cast<int>(data.size()), data.data());
}

std::optional<std::string> Configuration::call(const std::string& function, std::string argument)
{
    std::string reply(protocol::kMaxBytes, '\0');
    int received = 0;
    const int result =
        m_client.callFunction(function.c_str(), static_cast<int>(argument.size()), argument.data(),
                              static_cast<int>(reply.size()), received, reply.data());
    if (result != 0 || received < 0 || static_cast<std::size_t>(received) > reply.size())
        return std::nullopt;
    reply.resize(static_cast<std::size_t>(received));
    return reply;
}
