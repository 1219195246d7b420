// SPDX-License-Identifier: BSD-3-Clause
#include "KEPClient.h"

#include "base/CancelBlock.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <kep.h>
#include <new>

namespace {

constexpr int kStringSize = 256;
constexpr int kAttachFlag = 1;
constexpr int kWriteStringFlag = 1;
constexpr int kWritten = 1;
constexpr int kUnchanged = 0;
constexpr int kFailed = -1;

struct Event {
    const char* name;
    bool failureOnConsole;
};

constexpr Event kEvents[] = {
    {"event_certificate_updated", false},     {"gui_event_config_changed", true},
    {"pm_event_telnet_config_changed", true}, {"tolvex_event_config_changed", true},
    {"pm_event_snmp_config_changed", true},   {"pm_event_asra_config_changed", true},
};
constexpr char kRegisterFailure[] = "KEPClient:  failed to register %s!!!\n";

/// The service sets the lowest bit of a result; what else the register holds means nothing.
bool lowestBit(int result)
{
    return (result & 0x01) != 0;
}

/// Its setters answer with the lowest byte.
bool lowestByte(int result)
{
    return (result & 0xFF) != 0;
}

int written(int result)
{
    return lowestByte(result) ? kWritten : kFailed;
}

char* copyName(const char* name)
{
    char* copy = ::strdup(name == nullptr ? "" : name);
    if (copy == nullptr)
        throw std::bad_alloc();
    return copy;
}

void makeEmpty(char* buffer, int bufferSize)
{
    if (buffer != nullptr && bufferSize > 0)
        buffer[0] = '\0';
}

/// An array that a growing read may replace.
struct OwnedArray {
    OwnedArray() = default;
    ~OwnedArray() { delete[] data; }
    OwnedArray(const OwnedArray&) = delete;
    OwnedArray& operator=(const OwnedArray&) = delete;

    char* data = nullptr;
};

/// Let the service put a text into @p buffer, or leave the one in there, which may be @p name: a failure is
/// logged, unless @p log is null, before the buffer is emptied.
bool readText(const char* name, char* buffer, int bufferSize, AComponentLog* log)
{
    const CancelBlock block;
    const bool hasRoom = buffer != nullptr && bufferSize > 0;
    if (!lowestBit(kep_config_get_str_n(name, buffer, bufferSize))) {
        if (log != nullptr) {
            if (hasRoom)
                buffer[bufferSize - 1] = '\0'; // whatever the service left in there, the name has an end
            log->logInfo("Failed to get a value for property: %s\n", name);
        }
        makeEmpty(buffer, bufferSize);
        return false;
    }
    if (hasRoom && std::memchr(buffer, '\0', static_cast<std::size_t>(bufferSize)) == nullptr)
        buffer[bufferSize - 1] = '\0';
    return true;
}

/// Put an empty string in an array of @p size bytes, but at least one, in the place of @p buffer. If there is
/// no memory for it, the caller's buffer is null rather than a released one.
void replaceBuffer(char*& buffer, int& size)
{
    const int needed = std::max(size, 1);
    delete[] buffer;
    buffer = nullptr;
    size = 0;
    buffer = new char[static_cast<std::size_t>(needed)];
    buffer[0] = '\0';
    size = needed;
}

void printCall(const char* name, int size, int maxReceiveSize)
{
    std::printf("name: %s   size: %i   maxReceiveSize: %i\n", name, size, maxReceiveSize);
}

} // namespace

KEPClient::KEPClient(char* name, int id)
    : m_initialized(false), m_name(copyName(name)), m_id(id), m_log("KEPClient")
{}

KEPClient::~KEPClient()
{
    std::free(m_name);
}

void KEPClient::setLog(ALog& log)
{
    m_log.setBaseLog(log);
}

void KEPClient::setLog(AComponentLog& parent)
{
    parent.addChildLog(m_log);
}

AComponentLog& KEPClient::getLog()
{
    return m_log;
}

bool KEPClient::initialize()
{
    const CancelBlock block;
    m_log.logTrace("Calling kep_init\n");
    if (attach() && registerEvents())
        m_initialized = true;
    m_log.logTrace("  KEP initialization done.\n");
    return true;
}

bool KEPClient::getProperty(const char* name, char* buffer)
{
    return readText(name, buffer, kStringSize, nullptr);
}

bool KEPClient::getProperty(const char* name, char* buffer, int bufferSize)
{
    return readText(name, buffer, bufferSize, &m_log);
}

bool KEPClient::getProperty(const char* name, std::string& value)
{
    OwnedArray buffer;
    int size = 0;
    bool found = false;
    try {
        found = getProperty(name, &buffer.data, size) == 0;
    } catch (const char*) { // is logged
    }
    if (found && buffer.data != nullptr)
        value = buffer.data;
    else
        value.clear();
    return found;
}

bool KEPClient::getProperty(const char* name, int& value)
{
    const CancelBlock block;
    if (lowestBit(kep_config_get_int(name, &value)))
        return true;
    m_log.logInfo("Failed to get an int value for property: %s\n", name);
    value = 0;
    return false;
}

bool KEPClient::getProperty(const char* name, bool& value)
{
    const CancelBlock block;
    bool answer = false;
    const bool found = lowestBit(kep_config_get_bool(name, &answer));
    if (!found)
        m_log.logInfo("Failed to get an bpol value for property: %s\n", name);
    value = found && *reinterpret_cast<const unsigned char*>(&answer) != 0; // it may be neither 0 nor 1
    return found;
}

int KEPClient::getProperty(const char* name, char** buffer, int& size)
{
    const CancelBlock block;
    int capacity = *buffer == nullptr ? 0 : std::max(size, 0);
    int rc = kep_config_get(name, *buffer, &size);
    if (rc == KEP_ERROR_MAXCNT_SIZE) {
        replaceBuffer(*buffer, size);
        capacity = size;
        rc = kep_config_get(name, *buffer, &size);
        if (rc == KEP_ERROR_MAXCNT_SIZE) {
            m_log.logError("The call to kep_config_get for property %s returned KEP_ERROR_MAXCNT_SIZE twice "
                           "even though a new buffer of the specified size was allocated.",
                           name);
            makeEmpty(*buffer, capacity);
            throw "Unable to retrieve property";
        }
    }
    if (rc != 0) {
        m_log.logInfo("Property value not found for %s\n", name);
        makeEmpty(*buffer, capacity);
        return rc;
    }
    // Not even a wrong size from the service may lead outside the array.
    size = std::clamp(size, 0, capacity);
    if (capacity > 0)
        (*buffer)[std::max(size, 1) - 1] = '\0';
    return 0;
}

bool KEPClient::setProperty(const char* name, char* value, bool /*flag*/)
{
    const CancelBlock block;
    if (value == nullptr)
        return false;
    char current[kStringSize] = {};
    const bool found = lowestBit(kep_config_get_str_n(name, current, kStringSize));
    const std::size_t length = std::strlen(value);
    // Without a terminator in there the property isn't known in full, and equals no value.
    if (found && length < kStringSize && std::memcmp(current, value, length + 1) == 0)
        return false;
    return lowestByte(kep_config_set_str_n(name, value, kWriteStringFlag));
}

bool KEPClient::setProperty(const char* name, int value, bool flag)
{
    return updateProperty(name, value, flag) > 0;
}

bool KEPClient::setProperty(const char* name, bool value, bool flag)
{
    return updateProperty(name, value, flag) > 0;
}

int KEPClient::updateProperty(const char* name, const char* value, bool /*flag*/)
{
    const CancelBlock block;
    if (value == nullptr)
        return kFailed;
    std::string current;
    if (getProperty(name, current) && current == value)
        return kUnchanged;
    return written(kep_config_set_str_n(name, value, kWriteStringFlag));
}

int KEPClient::updateProperty(const char* name, int value, bool flag)
{
    const CancelBlock block;
    int current = 0;
    if (getProperty(name, current) && current == value)
        return kUnchanged;
    return written(kep_config_set_int(name, value, flag));
}

int KEPClient::updateProperty(const char* name, bool value, bool flag)
{
    const CancelBlock block;
    bool current = false;
    if (getProperty(name, current) && current == value)
        return kUnchanged;
    return written(kep_config_set_bool(name, value, flag));
}

bool KEPClient::notifyEvent(char* event, int size, void* data)
{
    const CancelBlock block;
    if (lowestBit(kep_event_occurred(event, size, data)))
        return true;
    m_log.print("KEPClient: notifyEvent failed.\n");
    return false;
}

int KEPClient::callFunction(const char* name, int size, void* sendBuffer, int maxReceiveSize,
                            int& receivedSize, void* receiveBuffer)
{
    const CancelBlock block;
    printCall(name, size, maxReceiveSize);
    m_log.print("KEPClient: invoking function %s\n", name);
    int n = size;
    const int rc = kep_function_execute(name, &n, sendBuffer, maxReceiveSize, receiveBuffer);
    if (rc == 0)
        receivedSize = n;
    else if (rc == KEP_ERROR_RPC)
        m_log.print("KEPClient: function call failed, rpc failure.\n");
    else if (rc == KEP_ERROR_MAXCNT_SIZE)
        m_log.print("KEPClient: function call failed, buffer too small.\n");
    else
        m_log.print("KEPClient: function call failed, unknown errors.\n");
    printCall(name, n, maxReceiveSize);
    return rc;
}

void KEPClient::registerCallback(char* name, Callback** callback)
{
    const CancelBlock block;
    const int rc = kep_function_register(name, callback);
    if (rc != 0)
        ::logInfo("%s() - kep_function_register failed, error code: %d, exiting program\n",
                  "registerCallback", rc);
}

bool KEPClient::attach()
{
    if (m_initialized || lowestBit(kep_init(m_name, m_id, kAttachFlag)))
        return true;
    m_log.print("KEPClient:  failed to initialize KEP!!!\n");
    return false;
}

bool KEPClient::registerEvents()
{
    for (const Event& event : kEvents) {
        if (kep_event_register(event.name) != 0)
            continue;
        if (event.failureOnConsole)
            std::printf(kRegisterFailure, event.name);
        m_log.print(kRegisterFailure, event.name);
        return false;
    }
    return true;
}
