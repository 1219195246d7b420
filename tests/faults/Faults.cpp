#include "faults/Faults.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <new>
#include <openssl/crypto.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

thread_local bool s_armed = false;
Faults::Kind s_kind = Faults::Kind::Failure;
int s_callsLeft = 0;

pid_t s_owner = 0;

/// Where the names of the failed calls stand: this process's, and behind it its child's.
const char** failedNames() {
    static void* const s_page =
        ::mmap(nullptr, 2 * sizeof(const char*), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return static_cast<const char**>(s_page);
}

/// The check of a password allocates thousands of times in there, to no other effect.
bool isCrypto(const void* caller) {
    dl_find_object crypto{};
    dl_find_object other{};
    return ::_dl_find_object(reinterpret_cast<void*>(&OPENSSL_cleanse), &crypto) == 0 &&
           ::_dl_find_object(const_cast<void*>(caller), &other) == 0 && crypto.dlfo_map_start == other.dlfo_map_start;
}

bool strikes(Faults::Kind kind, const char* name, const void* caller) {
    if (!s_armed || kind != s_kind || isCrypto(caller) || s_callsLeft-- != 0) return false;
    failedNames()[::getpid() == s_owner ? 0 : 1] = name;
    return true;
}

/// Whether this call fails, with errno set.
bool fails(const char* name, int error, const void* caller = nullptr) {
    if (!strikes(Faults::Kind::Failure, name, caller)) return false;
    errno = error;
    return true;
}

bool isInterrupted(const char* name) {
    if (!strikes(Faults::Kind::Interruption, name, nullptr)) return false;
    errno = EINTR;
    return true;
}

template <typename Function>
Function* next(Function*& known, const char* name) {
    if (known == nullptr) known = reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
    return known;
}

} // namespace

Faults::Faults(Kind kind, int number) {
    s_kind = kind;
    s_callsLeft = number;
    failedNames()[0] = failedNames()[1] = nullptr;
    s_owner = ::getpid();
    setArmed(true);
}

Faults::~Faults() { setArmed(false); }

void Faults::setArmed(bool armed) { s_armed = armed; }

std::set<std::string> Faults::failedCalls() {
    std::set<std::string> names;
    for (const char* name : {failedNames()[0], failedNames()[1]}) {
        if (name != nullptr) names.insert(name);
    }
    return names;
}

#define INTERPOSED extern "C" __attribute__((visibility("default")))

/// Define the call NAME, which fails with RESULT and ERROR when it is its turn and goes to the system
/// otherwise.
#define FAILING(type, name, parameters, arguments, result, error)                                                      \
    INTERPOSED type name parameters {                                                                                  \
        static type(*s_real) parameters = nullptr;                                                                     \
        const void* const caller = __builtin_return_address(0);                                                        \
        return fails(#name, error, caller) ? result : next(s_real, #name) arguments;                                   \
    }

/// The same for a call that a signal may interrupt.
#define INTERRUPTIBLE(type, name, parameters, arguments, error)                                                        \
    INTERPOSED type name parameters {                                                                                  \
        static type(*s_real) parameters = nullptr;                                                                     \
        return isInterrupted(#name) || fails(#name, error) ? -1 : next(s_real, #name) arguments;                       \
    }

FAILING(void*, malloc, (std::size_t size) noexcept, (size), nullptr, ENOMEM)
FAILING(void*, calloc, (std::size_t count, std::size_t size) noexcept, (count, size), nullptr, ENOMEM)
FAILING(char*, strdup, (const char* text) noexcept, (text), nullptr, ENOMEM)
FAILING(int, pipe2, (int* ends, int flags) noexcept, (ends, flags), -1, EMFILE)
FAILING(pid_t, fork, () noexcept, (), -1, EAGAIN)
FAILING(int, socket, (int family, int type, int protocol) noexcept, (family, type, protocol), -1, EMFILE)
FAILING(int, setsockopt, (int descriptor, int level, int name, const void* value, socklen_t size) noexcept,
        (descriptor, level, name, value, size), -1, ENOPROTOOPT)
FAILING(int, connect, (int descriptor, const sockaddr* address, socklen_t size), (descriptor, address, size), -1,
        ECONNREFUSED)
FAILING(FILE*, fopen, (const char* path, const char* mode), (path, mode), nullptr, EMFILE)
INTERRUPTIBLE(int, dup2, (int from, int to) noexcept, (from, to), EBUSY)
INTERRUPTIBLE(int, poll, (pollfd * entries, nfds_t count, int limit), (entries, count, limit), ENOMEM)
INTERRUPTIBLE(ssize_t, recv, (int descriptor, void* buffer, std::size_t size, int flags),
              (descriptor, buffer, size, flags), ECONNRESET)
INTERRUPTIBLE(ssize_t, read, (int descriptor, void* buffer, std::size_t size), (descriptor, buffer, size), EIO)
INTERRUPTIBLE(ssize_t, write, (int descriptor, const void* data, std::size_t size), (descriptor, data, size), EPIPE)

// The child's delay, and what it becomes.
INTERPOSED unsigned sleep(unsigned) { return 0; }

FAILING(int, execvp, (const char* file, char* const* args) noexcept, (file, args), -1, ENOENT)

INTERPOSED int open(const char* path, int flags, ...) {
    static int (*s_real)(const char*, int, ...) = nullptr;
    va_list args;
    va_start(args, flags);
    const int mode = va_arg(args, int);
    va_end(args);
    return fails("open", EMFILE) ? -1 : next(s_real, "open")(path, flags, mode);
}

INTERPOSED int fcntl(int descriptor, int command, ...) {
    static int (*s_real)(int, int, ...) = nullptr;
    va_list args;
    va_start(args, command);
    void* const argument = va_arg(args, void*);
    va_end(args);
    return fails("fcntl", EMFILE) ? -1 : next(s_real, "fcntl")(descriptor, command, argument);
}

__attribute__((visibility("default"))) void* operator new(std::size_t size) {
    static void* (*s_real)(std::size_t) = nullptr;
    if (fails("new", ENOMEM)) throw std::bad_alloc();
    return next(s_real, "_Znwm")(size);
}
