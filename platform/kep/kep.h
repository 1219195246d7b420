#pragma once

/// @file
/// The interface of `libkep.so.1`, the controller's configuration, event and remote-function service.
///
/// Results come in three kinds. A boolean is success when its lowest bit is set (the setters: when any bit of
/// the lowest byte is); the rest of the register means nothing, and that is why they are declared as
/// integers. A code is 0 for success. kep_event_register() answers 0 for failure and anything else for
/// success.

#include <stdbool.h>
#include <stdint.h>

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

enum {
    KEP_ERROR_MAXCNT_SIZE = -2, ///< The caller's buffer is too small.
    KEP_ERROR_RPC = -8          ///< The remote call itself failed.
};

/// A function that others may call by its name. @p size holds the size of @p request on entry and takes the
/// size of the reply; @p reply has room for @p maxReplySize bytes. Returns 0 or a code for the caller.
typedef int kep_function(int* size, int maxReplySize, void* request, void* reply);

/// Attach the program @p name with its @p id. @return a boolean.
int kep_init(const char* name, int64_t id, int flag);

/// Register for an event. @return 0 on failure.
int kep_event_register(const char* event);
/// Raise an event with @p size bytes of @p data. @return a boolean.
int kep_event_occurred(const char* event, int size, void* data);

/// Read a string of any length. @p size holds the size of @p buffer, which may be null, and takes the size of
/// the value, its terminator included.
/// @return 0; KEP_ERROR_MAXCNT_SIZE with the size needed in @p size; or another code when there is no value.
int kep_config_get(const char* name, char* buffer, int* size);
/// Read a string into @p size bytes, terminated. One that doesn't fit answers 0. @return a boolean.
int kep_config_get_str_n(const char* name, char* buffer, int size);
/// Read an integer. @return a boolean.
int kep_config_get_int(const char* name, int* value);
/// Read a boolean. @return a boolean.
int kep_config_get_bool(const char* name, bool* value);

/// Write a string. @return a boolean in the lowest byte.
int kep_config_set_str_n(const char* name, const char* value, int flag);
/// Write an integer. @return a boolean in the lowest byte.
int kep_config_set_int(const char* name, int value, bool flag);
/// Write a boolean. @return a boolean in the lowest byte.
int kep_config_set_bool(const char* name, bool value, bool flag);

/// Let others call the function that @p function points at by @p name. @return a code.
int kep_function_register(const char* name, kep_function** function);
/// Call a function by name. @p size holds the size of @p request and takes the size of the reply.
/// @return 0, KEP_ERROR_MAXCNT_SIZE when the reply doesn't fit, KEP_ERROR_RPC, or another code.
int kep_function_execute(const char* name, int* size, void* request, int maxReplySize, void* reply);

/// Write a line to the service's own log.
int logInfo(const char* format, ...) __attribute__((format(printf, 1, 2)));

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop
