// SPDX-License-Identifier: BSD-3-Clause
// A PAM module that never refuses, and offers two functions to whoever calls the configuration service:
// "hang" says so and doesn't return, "exit" ends the process.

#include "kep.h"

#include <cstdio>
#include <cstdlib>
#include <security/pam_ext.h>
#include <security/pam_modules.h>
#include <unistd.h>

namespace {

int hang(int*, int, void*, void*)
{
    ::dprintf(STDERR_FILENO, "hangs\n");
    for (;;)
        ::pause();
}

int leave(int*, int, void*, void*)
{
    std::exit(0);
}

kep_function *s_hang = hang, *s_exit = leave;

} // namespace

extern "C" __attribute__((visibility("default"))) int pam_sm_authenticate(pam_handle_t*, int, int,
                                                                          const char**)
{
    kep_function_register("hang", &s_hang);
    kep_function_register("exit", &s_exit);
    return PAM_SUCCESS;
}

extern "C" __attribute__((visibility("default"))) int pam_sm_setcred(pam_handle_t*, int, int, const char**)
{
    return PAM_SUCCESS;
}
