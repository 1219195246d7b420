// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <security/pam_appl.h>

// libpam answers a null handle with PAM_SYSTEM_ERR, and the roads after a failed pam_start rely on that. Its
// header declares the handle nonnull all the same, which entitles the compiler to drop our own null checks
// around such a call. These declarations of the same functions make no such promise.

extern "C" {
int pamSetItem(pam_handle_t* handle, int item, const void* value) __asm__("pam_set_item");
int pamAuthenticate(pam_handle_t* handle, int flags) __asm__("pam_authenticate");
int pamChangeToken(pam_handle_t* handle, int flags) __asm__("pam_chauthtok");
int pamOpenSession(pam_handle_t* handle, int flags) __asm__("pam_open_session");
int pamEnd(pam_handle_t* handle, int status) __asm__("pam_end");
}
