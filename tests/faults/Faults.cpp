// SPDX-License-Identifier: BSD-3-Clause
#include "faults/Faults.h"
#include "support/Interposed.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <kep.h>
#include <new>
#include <openssl/crypto.h>
#include <poll.h>
#include <pthread.h>
#include <security/pam_appl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

/// A cancellation takes no notice of what AddressSanitizer guards on the stack that it unwinds.
extern "C" __attribute__((weak)) void __asan_handle_no_return();

namespace {

/// What a call can do besides to succeed.
enum Trait : unsigned {
    Fails = 1,
    IsInterrupted = 2,
    Allocates = 4,
    Waits = 8 ///< For a service, where a cancellation acts.
};

thread_local bool s_armed = false;
thread_local int s_lockedStreams = 0;
Faults::Kind s_kind = Faults::Kind::Failure;
int s_callsLeft = 0;
const char* s_cancelledIn = "";

/// Where the name of the disturbed call stands, for a child as well.
const char*& disturbedName()
{
    static void* const s_page =
        ::mmap(nullptr, sizeof(const char*), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return *static_cast<const char**>(s_page);
}

const void* libraryOf(const void* address)
{
    dl_find_object object{};
    return ::_dl_find_object(const_cast<void*>(address), &object) == 0 ? object.dlfo_map_start : nullptr;
}

template <typename Function>
const void* libraryOf(Function* function)
{
    return libraryOf(reinterpret_cast<const void*>(function));
}

bool canHappen(unsigned traits, const void* caller)
{
    const void* const library = libraryOf(caller);
    // The check of a password allocates thousands of times in there, to no other effect.
    if (library == libraryOf(&OPENSSL_cleanse))
        return false;
    if (s_kind == Faults::Kind::Failure || s_kind == Faults::Kind::Interruption)
        return (traits & (s_kind == Faults::Kind::Failure ? Fails : IsInterrupted)) != 0;
    // The C library allocates with its locks held.
    const bool isTold = s_kind == Faults::Kind::Preemption && library == libraryOf(&::setenv);
    return isTold || (traits & Allocates) == 0;
}

bool isTurn(const char* name, unsigned traits, const void* caller)
{
    if (!s_armed || !canHappen(traits, caller) || s_callsLeft-- != 0)
        return false;
    disturbedName() = name;
    return true;
}

/// Returns whether the call fails.
bool disturb(const char* name, int error)
{
    s_armed = false;
    if (s_kind == Faults::Kind::Cancellation)
        ::pthread_cancel(::pthread_self());
    else if (s_kind == Faults::Kind::Preemption)
        Faults::s_letThrough(name);
    else
        errno = s_kind == Faults::Kind::Interruption ? EINTR : error;
    s_armed = true;
    return s_kind == Faults::Kind::Failure || s_kind == Faults::Kind::Interruption;
}

bool fails(const char* name, int error, unsigned traits, const void* caller)
{
    const bool result = isTurn(name, traits, caller) && disturb(name, error);
    if (s_armed && s_kind == Faults::Kind::Cancellation && (traits & Waits) != 0)
        ::pthread_testcancel();
    return result;
}

/// Let a call through that nothing but a cancellation leaves early.
template <typename Call>
auto pass(const char* name, Call call)
{
    try {
        return call();
    } catch (...) {
        if (__asan_handle_no_return != nullptr)
            __asan_handle_no_return();
        s_cancelledIn = *s_cancelledIn == '\0' ? name : s_cancelledIn;
        throw;
    }
}

/// A stream that nobody else uses meanwhile.
FILE* locked(FILE* stream)
{
    Faults::s_wrongUses += s_lockedStreams == 0;
    return stream;
}

int taken(int status)
{
    s_lockedStreams += status == 0;
    return status;
}

/// A session that a module can't close is none any more.
int closed(int status)
{
    --Faults::s_sessions;
    return status;
}

int counted(std::atomic<int>& count, int change, int status)
{
    count += status == PAM_SUCCESS ? change : 0;
    return status;
}

} // namespace

Faults::Faults(Kind kind, int number)
{
    s_kind = kind;
    s_callsLeft = number;
    s_cancelledIn = "";
    if (number >= 0)
        disturbedName() = nullptr;
    s_armed = true;
}

Faults::~Faults()
{
    s_armed = false;
}

std::string Faults::disturbedCall()
{
    return disturbedName() == nullptr ? "" : disturbedName();
}

const char* Faults::cancelledIn()
{
    return s_cancelledIn;
}

Faults::Kind Faults::kind()
{
    return s_kind;
}

/// Define the call NAME as REAL's, which fails with RESULT and ERROR if TRAITS say so and it is its turn.
#define CALL(type, name, parameters, call, traits, result, error)                                            \
    INTERPOSED type name parameters                                                                          \
    {                                                                                                        \
        static const auto real = nextDefinition<decltype(::name)>(#name);                                    \
        const void* const caller = __builtin_return_address(0);                                              \
        return pass(#name, [&] { return fails(#name, error, traits, caller) ? result : call; });             \
    }
/// The same where nothing can fail.
#define STEP(type, name, parameters, call) CALL(type, name, parameters, call, 0, type(), 0)

CALL(void*, malloc, (std::size_t size) noexcept, real(size), Fails | Allocates, nullptr, ENOMEM)
CALL(void*, calloc, (std::size_t count, std::size_t size) noexcept, real(count, size), Fails | Allocates,
     nullptr, ENOMEM)
CALL(int, pipe2, (int* ends, int flags) noexcept, real(ends, flags), Fails, -1, EMFILE)
CALL(pid_t, fork, () noexcept, real(), Fails, -1, EAGAIN)
CALL(int, execvp, (const char* file, char* const* args) noexcept, real(file, args), Fails, -1, ENOENT)
CALL(int, socket, (int family, int type, int protocol) noexcept, real(family, type, protocol), Fails, -1,
     EMFILE)
CALL(int, connect, (int socket, const sockaddr* address, socklen_t size), real(socket, address, size), Fails,
     -1, ECONNREFUSED)
CALL(int, setsockopt, (int socket, int level, int option, const void* value, socklen_t size) noexcept,
     real(socket, level, option, value, size), Fails, -1, ENOMEM)
CALL(int, fcntl, (int file, int command, long argument), real(file, command, argument), Fails, -1, EMFILE)
CALL(int, open, (const char* path, int flags, mode_t mode), real(path, flags, mode), Fails, -1, ENFILE)
CALL(ssize_t, read, (int file, void* data, std::size_t size), real(file, data, size), Fails | IsInterrupted,
     -1, EIO)
/// The same where the size is checked, as some builds do.
INTERPOSED ssize_t __read_chk(int file, void* data, std::size_t size, std::size_t)
{
    return ::read(file, data, size);
}
CALL(int, posix_spawn_file_actions_adddup2, (posix_spawn_file_actions_t * actions, int from, int to) noexcept,
     real(actions, from, to), Fails, ENOMEM, 0)
CALL(int, posix_spawnp,
     (pid_t * child, const char* file, const posix_spawn_file_actions_t* actions,
      const posix_spawnattr_t* attributes, char* const* args, char* const* environment),
     real(child, file, actions, attributes, args, environment), Fails, EAGAIN, 0)
CALL(int, waitid, (idtype_t type, id_t id, siginfo_t* info, int options), real(type, id, info, options),
     IsInterrupted, -1, 0)
CALL(pid_t, wait, (int* status), real(status), Fails | IsInterrupted, -1, ECHILD)
CALL(int, dup2, (int from, int to) noexcept, real(from, to), Fails | IsInterrupted, -1, EBUSY)
CALL(int, dup3, (int from, int to, int flags) noexcept, real(from, to, flags), Fails, -1, EBUSY)
CALL(int, poll, (pollfd * entries, nfds_t count, int limit), real(entries, count, limit),
     Fails | IsInterrupted, -1, ENOMEM)
CALL(ssize_t, recv, (int socket, void* data, std::size_t size, int flags), real(socket, data, size, flags),
     Fails | IsInterrupted, -1, ECONNRESET)
CALL(ssize_t, write, (int file, const void* data, std::size_t size), real(file, data, size),
     Fails | IsInterrupted, -1, EPIPE)
CALL(FILE*, fdopen, (int file, const char* mode) noexcept, real(file, mode), Fails, nullptr, ENOMEM)
CALL(int, kep_config_get, (const char* name, char* buffer, int* size), real(name, buffer, size),
     Fails | Waits, KEP_ERROR_RPC, 0)
CALL(int, kep_config_get_int, (const char* name, int* value), real(name, value), Fails | Waits, 0, 0)
CALL(int, kep_config_set_str_n, (const char* name, const char* value, int flag), real(name, value, flag),
     Fails | Waits, 0, 0)
CALL(int, kep_config_set_int, (const char* name, int value, bool flag), real(name, value, flag),
     Fails | Waits, 0, 0)

STEP(int, fclose, (FILE * stream), real(stream))
STEP(int, fflush, (FILE * stream), real(stream))
STEP(int, fflush_unlocked, (FILE * stream), real(locked(stream)))
STEP(int, fputs_unlocked, (const char* text, FILE* stream), real(text, locked(stream)))
STEP(std::size_t, fwrite_unlocked, (const void* data, std::size_t size, std::size_t count, FILE* stream),
     real(data, size, count, locked(stream)))
STEP(int, __vsnprintf_chk,
     (char* text, std::size_t size, int flag, std::size_t room, const char* format, va_list args) noexcept,
     real(text, size, flag, room, format, args))
STEP(void, flockfile, (FILE * stream) noexcept, (real(stream), void(taken(0))))
STEP(int, ftrylockfile, (FILE * stream) noexcept, taken(real(stream)))
STEP(void, funlockfile, (FILE * stream) noexcept, (--s_lockedStreams, real(stream)))
CALL(std::tm*, localtime_r, (const std::time_t* second, std::tm* time) noexcept, real(second, time), 0,
     nullptr, 0)
STEP(void, tzset, () noexcept, real())
CALL(int, pthread_create,
     (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*), void* object) noexcept,
     real(thread, attributes, body, object), Fails, EAGAIN, 0)
STEP(int, pthread_cond_clockwait,
     (pthread_cond_t * condition, pthread_mutex_t* mutex, clockid_t clock, const timespec* end),
     real(condition, mutex, clock, end))
STEP(int, pthread_mutex_lock, (pthread_mutex_t * mutex) noexcept, real(mutex))
STEP(int, pthread_mutex_unlock, (pthread_mutex_t * mutex) noexcept, real(mutex))
STEP(int, pam_start_confdir,
     (const char* service, const char* user, const pam_conv* conversation, const char* folder,
      pam_handle_t** handle),
     counted(Faults::s_transactions, 1, real(service, user, conversation, folder, handle)))
STEP(int, pam_authenticate, (pam_handle_t * handle, int flags), real(handle, flags))
STEP(int, pam_chauthtok, (pam_handle_t * handle, int flags), real(handle, flags))
STEP(int, pam_acct_mgmt, (pam_handle_t * handle, int flags), real(handle, flags))
STEP(int, pam_open_session, (pam_handle_t * handle, int flags),
     counted(Faults::s_sessions, 1, real(handle, flags)))
STEP(int, pam_end, (pam_handle_t * handle, int status),
     counted(Faults::s_transactions, -1, real(handle, status)))

CALL(int, pam_putenv, (pam_handle_t * handle, const char* text), real(handle, text), Waits, PAM_SUCCESS, 0)
STEP(int, pam_close_session, (pam_handle_t * handle, int flags), closed(real(handle, flags)))

/// A cancellation comes when the number is free already, as where a peer takes the last bytes slowly.
INTERPOSED int close(int descriptor)
{
    static const auto s_real = nextDefinition<decltype(::close)>("close");
    const bool isNow = isTurn("close", 0, __builtin_return_address(0));
    const bool isLate = isNow && s_kind == Faults::Kind::Cancellation;
    if (isNow && !isLate)
        disturb("close", 0);
    const int result = pass("close", [&] { return s_real(descriptor); });
    Faults::s_wrongCloses += result != 0 && errno == EBADF && descriptor >= 0;
    if (isLate) {
        disturb("close", 0);
        pass("close", ::pthread_testcancel);
    }
    return result;
}

__attribute__((visibility("default"))) void* operator new(std::size_t size)
{
    static const auto s_real = nextDefinition<void*(std::size_t)>("_Znwm");
    void* const object =
        fails("new", ENOMEM, Fails | Allocates, nullptr) ? throw std::bad_alloc() : s_real(size);
    ++Faults::s_objects;
    return object;
}

__attribute__((visibility("default"))) void operator delete(void* object) noexcept
{
    static const auto s_real = nextDefinition<void(void*)>("_ZdlPv");
    Faults::s_objects -= object != nullptr;
    s_real(object);
}

__attribute__((visibility("default"))) void operator delete(void* object, std::size_t) noexcept
{
    operator delete(object);
}

INTERPOSED unsigned sleep(unsigned)
{
    return 0; // a child's delay
}
