// SPDX-License-Identifier: BSD-3-Clause
#pragma once

/// @file
/// The interface of `libkep.so.1`, the controller's configuration, event and remote-function service, and
/// what a library that takes its place must keep. It has that soname and exports all of these functions with
/// C linkage; the sizes of the arguments are those of C on the controller: an `int` of 32 bits, a `bool` of
/// one byte.
///
/// **Results** come in three kinds. A *boolean* is success when its lowest bit is set, and one from a setter
/// when any bit of its lowest byte is: the rest of the register means nothing to callers, and that is why
/// they are declared as integers. A *code* is 0 for success. kep_event_register() answers 0 for failure and
/// anything else for success. No function throws, and none ends the program.
///
/// **Ownership.** Every text and every array stays the caller's. It is valid during the call only: what is
/// needed longer is copied, texts that name something included. The one exception is a registered function.
/// Texts end with a zero byte and are in no particular encoding. A null where a text belongs is a failure. A
/// function writes nothing but what it says here, and never more than the size that comes with an array. An
/// array that is read into may hold the name that is asked for, so the name is not looked at any more once
/// the array has been written.
///
/// **Threads.** A host calls from any number of threads at once, before kep_init() and after it. No lock of
/// the service is held while a registered function runs: it may call the service. A thread may have a
/// cancellation pending, which libgorvUtil blocks during each call. A child of fork() calls nothing before it
/// runs a program.

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
/// size of the reply; @p reply has room for @p maxReplySize bytes. It runs on whatever thread the service
/// chooses, several at once if so called. Returns 0 or a code for the caller.
typedef int kep_function(int* size, int maxReplySize, void* request, void* reply);

/// Attach the program @p name. What @p id stands for is the service's affair; @p flag is 1. May be called
/// again, after success too: by each client of a process, and by one that tries again. @return a boolean.
int kep_init(const char* name, int64_t id, int flag);

/// Register for @p event. Called again for the same one, which changes nothing. How an event reaches the
/// program is the service's affair. @return 0 on failure.
int kep_event_register(const char* event);
/// Raise @p event with @p size bytes of @p data, which is null only with a size of 0. @return a boolean.
int kep_event_occurred(const char* event, int size, void* data);

/// Read a string of any length. @p size holds the size of @p buffer, may be 0 or less, and takes the size of
/// the value, its terminator included. A null @p buffer, whatever the size, is too small.
/// @return 0; KEP_ERROR_MAXCNT_SIZE with the size needed in @p size and nothing stored; or another code when
/// there
///   is no such string: a number isn't one.
int kep_config_get(const char* name, char* buffer, int* size);
/// Read a string into @p size bytes, terminated. One that doesn't fit is a failure, and nothing of it need be
/// stored.
/// @return a boolean.
int kep_config_get_str_n(const char* name, char* buffer, int size);
/// Read an integer. @p value changes on success only. @return a boolean.
int kep_config_get_int(const char* name, int* value);
/// Read a boolean. @p value changes on success only, to 0 or 1. @return a boolean.
int kep_config_get_bool(const char* name, bool* value);

/// Write a string of any length, whatever the property held before. When the call returns, all readers get
/// the new value; what the service keeps from one start to the next is as safe by then as it promises. @p
/// flag is 1 from libgorvUtil; its meaning is the service's affair, here and below. @return a boolean in the
/// lowest byte.
int kep_config_set_str_n(const char* name, const char* value, int flag);
/// Write an integer. @return a boolean in the lowest byte.
int kep_config_set_int(const char* name, int value, bool flag);
/// Write a boolean. @return a boolean in the lowest byte.
int kep_config_set_bool(const char* name, bool value, bool flag);

/// Let others call the function that @p function points at by @p name, in place of the one that had this
/// name. The pointer at @p function stays in place, and the function callable, until the program ends.
/// @return a code.
int kep_function_register(const char* name, kep_function** function);
/// Call a function by name and wait until it has answered. @p size holds the size of @p request and takes the
/// size of the reply, for which @p reply has room for @p maxReplySize bytes. A null array goes with a size of
/// 0.
/// @return 0, KEP_ERROR_MAXCNT_SIZE when the reply doesn't fit, KEP_ERROR_RPC when there is no such function
/// or it
///   can't be reached, or another code, the function's own among them.
int kep_function_execute(const char* name, int* size, void* request, int maxReplySize, void* reply);

/// Write a line, which brings its own end, to the service's own log. The result is ignored.
int logInfo(const char* format, ...) __attribute__((format(printf, 1, 2)));

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop
