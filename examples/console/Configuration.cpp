#include "Configuration.h"

#include "AComponentLog.h"
#include "PAMHelper.h"
#include "Protocol.h"

#include <cstdio>
#include <memory>

namespace {

constexpr int kClientId = 1;

/// The remote function: how many sessions are registered. The service calls it on whatever thread it likes.
int countSessions(int* size, int maxReplySize, void* /*request*/, void* reply)
{
    PAMHelper::getMonitor()->fastLock();
    const std::size_t count = PAMHelper::instanceMap.size();
    PAMHelper::getMonitor()->releaseLock();
    *size = std::snprintf(static_cast<char*>(reply), static_cast<std::size_t>(maxReplySize), "%zu", count);
    return *size < maxReplySize ? 0 : -1;
}

int (*s_countSessions)(int*, int, void*, void*) = countSessions;

} // namespace

Configuration::Configuration(AComponentLog& parent) : m_parent(parent), m_client("consoled", kClientId)
{
    m_client.setLog(m_parent);
    m_client.initialize();
    m_client.registerCallback("console_sessions", &s_countSessions);
}

Configuration::~Configuration()
{
    m_parent.removeChildLog(m_client.getLog());
}

std::optional<std::string> Configuration::get(const std::string& name)
{
    const MonitorLock lock = m_monitor.acquireLock();
    char* buffer = nullptr;
    int size = 0;
    int result = -1;
    try {
        result = m_client.getProperty(name.c_str(), &buffer, size);
    } catch (const char*) { // the property grew twice while it was read
    }
    const std::unique_ptr<char[]> owned(buffer);
    if (result != 0 || buffer == nullptr)
        return std::nullopt;
    return std::string(buffer);
}

bool Configuration::set(const std::string& name, std::string value)
{
    const MonitorLock lock = m_monitor.acquireLock();
    // False also means that the property held the value before.
    return m_client.setProperty(name.c_str(), value.data(), true) || get(name) == value;
}

bool Configuration::raise(std::string event, std::string data)
{
    const MonitorLock lock = m_monitor.acquireLock();
    return m_client.notifyEvent(event.data(), static_cast<int>(data.size()), data.data());
}

std::optional<std::string> Configuration::call(const std::string& function, std::string argument)
{
    const MonitorLock lock = m_monitor.acquireLock();
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
