// SPDX-License-Identifier: BSD-3-Clause
#include "FakeService.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <kep.h>
#include <pthread.h>

std::map<std::string, int> answers;
std::deque<std::pair<int, int>> answeredReads;
const char* answeredText = "text";

__attribute__((format(printf, 2, 3))) static int answer(int success, const char* format, ...)
{
    pthread_testcancel();
    char call[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(call, sizeof call, format, args);
    va_end(args);
    std::puts(call);
    for (const auto& [start, result] : answers)
        if (std::string_view(call).starts_with(start))
            return result;
    return success;
}

#define ANSWER(function, parameters, success, format, ...)                                                   \
    int function parameters                                                                                  \
    {                                                                                                        \
        return answer(success, #function " " format, __VA_ARGS__);                                           \
    }

ANSWER(kep_init, (const char* name, int64_t id, int flag), 1, "%s %d %d", name, static_cast<int>(id), flag)
ANSWER(kep_event_register, (const char* event), 7, "%s", event)
ANSWER(kep_event_occurred, (const char* event, int size, void* data), 1, "%s %.*s", event, size, (char*)data)
ANSWER(kep_config_set_str_n, (const char* name, const char* value, int flag), 1, "%s %s %d", name, value,
       flag)
ANSWER(kep_config_set_int, (const char* name, int value, bool flag), 1, "%s %d %d", name, value, flag)
ANSWER(kep_config_set_bool, (const char* name, bool value, bool flag), 1, "%s %d %d", name, value, flag)
ANSWER(kep_function_register, (const char* name, kep_function** function), 0, "%s %d", name,
       *function != nullptr)

int kep_config_get(const char* name, char* buffer, int* size)
{
    answer(0, "kep_config_get %s %d", name, *size);
    if (answeredReads.empty())
        answeredReads = {{KEP_ERROR_MAXCNT_SIZE, 5}, {0, 5}};
    if (buffer != nullptr)
        std::memset(buffer, 'x', static_cast<std::size_t>(*size));
    *size = answeredReads.front().second;
    const int code = answeredReads.front().first;
    answeredReads.pop_front();
    return code;
}

int kep_config_get_str_n(const char* name, char* buffer, int size)
{
    const int result = answer(1, "kep_config_get_str_n %s %d", name, size);
    if (answeredText != nullptr)
        std::memcpy(buffer, answeredText,
                    std::min(std::strlen(answeredText) + 1, static_cast<std::size_t>(size)));
    return result;
}

int kep_config_get_int(const char* name, int* value)
{
    *value = 7;
    return answer(1, "kep_config_get_int %s", name);
}

int kep_config_get_bool(const char* name, bool* value)
{
    std::memset(value, 2, 1); // means true, too
    return answer(1, "kep_config_get_bool %s", name);
}

int kep_function_execute(const char* name, int* size, void* request, int maxReplySize, void* reply)
{
    std::memcpy(reply, "reply", 6);
    const char* text = static_cast<char*>(request);
    return answer(0, "kep_function_execute %s %.*s %d", name, std::exchange(*size, 5), text, maxReplySize);
}

int logInfo(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int length = std::vprintf(format, args);
    va_end(args);
    return length;
}
