#include "faults/Faults.h"
#include "support/Interposed.h"

#include <cerrno>
#include <dlfcn.h>
#include <new>
#include <openssl/crypto.h>
#include <poll.h>
#include <security/pam_appl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

thread_local bool s_armed = false;
Faults::Kind s_kind = Faults::Kind::Failure;
int s_callsLeft = 0;

/// Where the name of the failed call stands, for a child as well.
const char*& failedName()
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

/// Whether this call fails, with errno set.
bool fails(const char* name, int error, bool interruptible, const void* caller)
{
    if (!s_armed || (s_kind == Faults::Kind::Interruption && !interruptible))
        return false;
    // The check of a password allocates thousands of times in there, to no other effect.
    if (libraryOf(caller) == libraryOf(reinterpret_cast<void*>(&OPENSSL_cleanse)) || s_callsLeft-- != 0)
        return false;
    failedName() = name;
    errno = s_kind == Faults::Kind::Interruption ? EINTR : error;
    return true;
}

} // namespace

Faults::Faults(Kind kind, int number)
{
    s_kind = kind;
    s_callsLeft = number;
    if (number >= 0)
        failedName() = nullptr;
    s_armed = true;
}

Faults::~Faults()
{
    s_armed = false;
}

std::string Faults::failedCall()
{
    return failedName() == nullptr ? "" : failedName();
}

/// Define the call NAME, which fails with RESULT and ERROR when it is its turn and goes to the system
/// otherwise.
#define FAILING(type, name, parameters, arguments, result, error, interruptible)                             \
    INTERPOSED type name parameters                                                                          \
    {                                                                                                        \
        static const auto s_real = nextDefinition<decltype(::name)>(#name);                                  \
        return fails(#name, error, interruptible, __builtin_return_address(0)) ? result : s_real arguments;  \
    }

FAILING(void*, malloc, (std::size_t size) noexcept, (size), nullptr, ENOMEM, false)
FAILING(void*, calloc, (std::size_t count, std::size_t size) noexcept, (count, size), nullptr, ENOMEM, false)
FAILING(int, pipe2, (int* ends, int flags) noexcept, (ends, flags), -1, EMFILE, false)
FAILING(pid_t, fork, () noexcept, (), -1, EAGAIN, false)
FAILING(int, execvp, (const char* file, char* const* args) noexcept, (file, args), -1, ENOENT, false)
FAILING(int, socket, (int family, int type, int protocol) noexcept, (family, type, protocol), -1, EMFILE,
        false)
FAILING(int, connect, (int descriptor, const sockaddr* address, socklen_t size), (descriptor, address, size),
        -1, ECONNREFUSED, false)
FAILING(int, setsockopt, (int descriptor, int level, int option, const void* value, socklen_t size) noexcept,
        (descriptor, level, option, value, size), -1, ENOMEM, false)
FAILING(int, fcntl, (int descriptor, int command, long argument), (descriptor, command, argument), -1, EMFILE,
        false)
FAILING(int, open, (const char* path, int flags, mode_t mode), (path, flags, mode), -1, ENFILE, true)
FAILING(ssize_t, read, (int descriptor, void* buffer, std::size_t size), (descriptor, buffer, size), -1, EIO,
        true)
FAILING(pid_t, wait, (int* status), (status), -1, ECHILD, true)
FAILING(int, dup2, (int from, int to) noexcept, (from, to), -1, EBUSY, true)
FAILING(int, poll, (pollfd * entries, nfds_t count, int limit), (entries, count, limit), -1, ENOMEM, true)
FAILING(ssize_t, recv, (int descriptor, void* buffer, std::size_t size, int flags),
        (descriptor, buffer, size, flags), -1, ECONNRESET, true)
FAILING(ssize_t, write, (int descriptor, const void* data, std::size_t size), (descriptor, data, size), -1,
        EPIPE, true)

__attribute__((visibility("default"))) void* operator new(std::size_t size)
{
    static const auto s_real = nextDefinition<void*(std::size_t)>("_Znwm");
    return fails("new", ENOMEM, false, nullptr) ? throw std::bad_alloc() : s_real(size);
}

INTERPOSED unsigned sleep(unsigned)
{
    return 0; // a child's delay
}

INTERPOSED int pam_start_confdir(const char* service, const char* user, const pam_conv* conversation,
                                 const char* confdir, pam_handle_t** handle)
{
    const int status = nextDefinition<decltype(::pam_start_confdir)>("pam_start_confdir")(
        service, user, conversation, confdir, handle);
    Faults::s_transactions += status == PAM_SUCCESS;
    return status;
}

INTERPOSED int pam_end(pam_handle_t* handle, int lastStatus)
{
    const int status = nextDefinition<decltype(::pam_end)>("pam_end")(handle, lastStatus);
    Faults::s_transactions -= status == PAM_SUCCESS;
    return status;
}
