#include "FakeService.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <kep.h>

std::map<std::string, int> answers;
std::deque<std::pair<int, int>> answeredReads;

__attribute__((format(printf, 2, 3))) static int answer(int success, const char* format, ...)
{
    char call[256];
    va_list args;
    va_start(args, format);
    std::vsnprintf(call, sizeof call, format, args);
    va_end(args);
    std::printf("%s\n", call);
    for (const auto& [start, result] : answers)
        if (std::string(call).starts_with(start))
            return result;
    return success;
}

int kep_init(const char* name, int64_t id, int flag)
{
    return answer(1, "kep_init %s %lld %d", name, static_cast<long long>(id), flag);
}

int kep_event_register(const char* event)
{
    return answer(7, "kep_event_register %s", event);
}

int kep_event_occurred(const char* event, int size, void* data)
{
    return answer(1, "kep_event_occurred %s %.*s", event, size, static_cast<char*>(data));
}

int kep_config_get(const char* name, char* buffer, int* size)
{
    std::pair<int, int> read{buffer == nullptr ? KEP_ERROR_MAXCNT_SIZE : 0, 5};
    if (!answeredReads.empty()) {
        read = answeredReads.front();
        answeredReads.pop_front();
    }
    answer(0, "kep_config_get %s %d", name, *size);
    if (buffer != nullptr)
        std::memset(buffer, 'x', static_cast<std::size_t>(*size));
    *size = read.second;
    return read.first;
}

int kep_config_get_str_n(const char* name, char* buffer, int size)
{
    std::snprintf(buffer, static_cast<std::size_t>(size), "text");
    return answer(1, "kep_config_get_str_n %s %d", name, size);
}

int kep_config_get_int(const char* name, int* value)
{
    *value = 7;
    return answer(1, "kep_config_get_int %s", name);
}

int kep_config_get_bool(const char* name, bool* value)
{
    *value = true;
    return answer(1, "kep_config_get_bool %s", name);
}

int kep_config_set_str_n(const char* name, const char* value, int flag)
{
    return answer(1, "kep_config_set_str_n %s %s %d", name, value, flag);
}

int kep_config_set_int(const char* name, int value, bool flag)
{
    return answer(1, "kep_config_set_int %s %d %d", name, value, flag);
}

int kep_config_set_bool(const char* name, bool value, bool flag)
{
    return answer(1, "kep_config_set_bool %s %d %d", name, value, flag);
}

int kep_function_register(const char* name, kep_function** function)
{
    return answer(0, "kep_function_register %s %s", name, *function == nullptr ? "null" : "function");
}

int kep_function_execute(const char* name, int* size, void* request, int maxReplySize, void* reply)
{
    const int code =
        answer(0, "kep_function_execute %s %.*s %d", name, *size, static_cast<char*>(request), maxReplySize);
    *size = std::snprintf(static_cast<char*>(reply), static_cast<std::size_t>(maxReplySize), "reply");
    return code;
}

int logInfo(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
    return 0;
}
