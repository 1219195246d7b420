#include "kep.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <string_view>
#include <variant>

namespace {

constexpr int kDone = 1;
constexpr int kFailed = 0;
constexpr int kNoValue = -1;
constexpr int kBadArgument = -3;

template <typename Entry>
using ByName = std::map<std::string, Entry, std::less<>>;

std::mutex s_lock; // guards all that follows
ByName<std::variant<std::string, int, bool>> s_properties;
ByName<kep_function*> s_functions;
std::set<std::string, std::less<>> s_events;

/// The value of a property, or null when it has none of this type. The caller holds the lock.
template <typename T>
const T* findProperty(const char* name)
{
    const auto entry = name == nullptr ? s_properties.end() : s_properties.find(std::string_view(name));
    return entry == s_properties.end() ? nullptr : std::get_if<T>(&entry->second);
}

template <typename T>
int getProperty(const char* name, T* value)
{
    const std::lock_guard guard(s_lock);
    const T* stored = findProperty<T>(name);
    if (stored == nullptr || value == nullptr)
        return kFailed;
    *value = *stored;
    return kDone;
}

/// The work of both string reads: a host may replace one of them and must not get the other.
int readString(const char* name, char* buffer, int* size)
{
    const std::lock_guard guard(s_lock);
    const auto* value = findProperty<std::string>(name);
    if (value == nullptr || size == nullptr)
        return kNoValue;
    const std::size_t needed = value->size() + 1;
    const bool fits = buffer != nullptr && *size > 0 && static_cast<std::size_t>(*size) >= needed;
    *size = static_cast<int>(needed);
    if (!fits)
        return KEP_ERROR_MAXCNT_SIZE;
    std::memcpy(buffer, value->c_str(), needed);
    return 0;
}

/// Run @p change under the lock. An exception must not reach callers that are written in C.
template <typename Change>
bool applied(Change change)
{
    try {
        const std::lock_guard guard(s_lock);
        change();
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

template <typename T, typename Source>
int setProperty(const char* name, Source value)
{
    const auto change = [&] { s_properties.insert_or_assign(name, T(value)); };
    return name != nullptr && applied(change) ? kDone : kFailed;
}

} // namespace

int kep_init(const char* name, int64_t /*id*/, int /*flag*/)
{
    return name != nullptr ? kDone : kFailed;
}

int kep_event_register(const char* event)
{
    return event != nullptr && applied([&] { s_events.insert(event); }) ? kDone : kFailed;
}

int kep_event_occurred(const char* event, int /*size*/, void* /*data*/)
{
    const std::lock_guard guard(s_lock);
    return event != nullptr && s_events.contains(std::string_view(event)) ? kDone : kFailed;
}

int kep_config_get(const char* name, char* buffer, int* size)
{
    return readString(name, buffer, size);
}

int kep_config_get_str_n(const char* name, char* buffer, int size)
{
    return readString(name, buffer, &size) == 0 ? kDone : kFailed;
}

int kep_config_get_int(const char* name, int* value)
{
    return getProperty(name, value);
}

int kep_config_get_bool(const char* name, bool* value)
{
    return getProperty(name, value);
}

int kep_config_set_str_n(const char* name, const char* value, int /*flag*/)
{
    return value != nullptr ? setProperty<std::string>(name, value) : kFailed;
}

int kep_config_set_int(const char* name, int value, bool /*flag*/)
{
    return setProperty<int>(name, value);
}

int kep_config_set_bool(const char* name, bool value, bool /*flag*/)
{
    return setProperty<bool>(name, value);
}

int kep_function_register(const char* name, kep_function** function)
{
    if (name == nullptr || function == nullptr || *function == nullptr)
        return kBadArgument;
    return applied([&] { s_functions.insert_or_assign(name, *function); }) ? 0 : kBadArgument;
}

int kep_function_execute(const char* name, int* size, void* request, int maxReplySize, void* reply)
{
    if (name == nullptr || size == nullptr)
        return kBadArgument;
    kep_function* function = nullptr;
    {
        const std::lock_guard guard(s_lock);
        const auto entry = s_functions.find(std::string_view(name));
        if (entry == s_functions.end())
            return KEP_ERROR_RPC;
        function = entry->second;
    }
    // Without the lock: the function may call the service itself.
    const int result = function(size, maxReplySize, request, reply);
    return result == 0 && *size > maxReplySize ? KEP_ERROR_MAXCNT_SIZE : result;
}

int logInfo(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int length = std::vfprintf(stderr, format, args);
    va_end(args);
    return length;
}
