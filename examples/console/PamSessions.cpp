// SPDX-License-Identifier: BSD-3-Clause
#include "PamSessions.h"

#include <dlfcn.h>
#include <mutex>
#include <security/pam_appl.h>
#include <set>
#include <utility>

namespace {

using Step = int(pam_handle_t*, int);

std::mutex s_lock; // guards what follows
std::set<pam_handle_t*> s_open;

int callLibpam(const char* step, pam_handle_t* handle, int flags)
{
    return reinterpret_cast<Step*>(::dlsym(RTLD_NEXT, step))(handle, flags);
}

} // namespace

void closePamSessions()
{
    const std::lock_guard guard(s_lock); // nobody ends a transaction meanwhile
    for (pam_handle_t* const handle : std::exchange(s_open, {}))
        callLibpam("pam_close_session", handle, 0);
}

// The program's own definitions come before libpam's when the loader resolves the library's calls.
extern "C" __attribute__((visibility("default"))) int pam_open_session(pam_handle_t* handle, int flags)
{
    const int status = callLibpam("pam_open_session", handle, flags);
    const std::lock_guard guard(s_lock);
    if (status == PAM_SUCCESS)
        s_open.insert(handle);
    return status;
}

extern "C" __attribute__((visibility("default"))) int pam_close_session(pam_handle_t* handle, int flags)
{
    std::unique_lock lock(s_lock);
    const bool isOpen = s_open.erase(handle) > 0;
    lock.unlock();
    return isOpen ? callLibpam("pam_close_session", handle, flags) : PAM_SUCCESS;
}
