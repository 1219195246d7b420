// SPDX-License-Identifier: BSD-3-Clause
#include "kep.h"
#include "Store.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace {

constexpr int kDone = 1;
constexpr int kFailed = 0;
constexpr int kNoValue = -1;
constexpr int kBadArgument = -3;

template <typename Entry>
using ByName = std::map<std::string, Entry, std::less<>>;

enum class State {
    Unknown,
    Ready,
    Refused // there is a store, and it can't be had
};

std::mutex s_writing; // held while a property is written, which may take the time of a disk; before s_lock
std::atomic<State> s_state = State::Unknown;
Store* s_store = nullptr; // null: nothing is kept; stays when the process ends, as a thread may be writing

std::mutex s_lock; // guards all that follows; the properties change while both are held
Properties s_properties;
ByName<kep_function*> s_functions;
std::set<std::string, std::less<>> s_events;

/// Load what the environment says is kept. The caller holds the lock for writing.
bool load(const char* path)
{
    try {
        auto store = std::make_unique<Store>();
        Properties properties;
        if (!store->open(path, properties))
            return false;
        s_store = store.release();
        const std::lock_guard guard(s_lock);
        s_properties.swap(properties);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

/// Whether there are properties: the first caller gets them. Who attaches tries again after a refusal.
bool isReady(bool again = false)
{
    const auto isSettled = [&] { return s_state == State::Ready || (s_state == State::Refused && !again); };
    if (!isSettled()) {
        const std::lock_guard writing(s_writing);
        const char* path = std::getenv("KEP_STORE");
        if (!isSettled())
            s_state = path == nullptr || *path == '\0' || load(path) ? State::Ready : State::Refused;
    }
    return s_state == State::Ready;
}

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
    if (!isReady())
        return kFailed;
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
    if (!isReady())
        return kNoValue;
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

/// Whether the property is kept and then changed. The caller holds the lock for writing.
bool changed(const std::string& name, Value value)
{
    const auto entry = s_properties.find(name);
    if (entry != s_properties.end() && entry->second == value)
        return true;
    Properties change; // what may run out of memory, before the value is kept
    const Value& kept = change.emplace(name, std::move(value)).first->second;
    if (s_store != nullptr && !s_store->put(name, kept))
        return false;
    const std::lock_guard guard(s_lock);
    s_properties.erase(name);
    s_properties.merge(change);
    return true;
}

template <typename T, typename Source>
int setProperty(const char* name, Source value)
{
    if (name == nullptr || !isReady())
        return kFailed;
    try {
        const std::lock_guard writing(s_writing);
        return changed(name, Value(T(value))) ? kDone : kFailed;
    } catch (const std::bad_alloc&) {
        return kFailed;
    }
}

} // namespace

int kep_init(const char* name, int64_t /*id*/, int /*flag*/)
{
    return name != nullptr && isReady(true) ? kDone : kFailed;
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
