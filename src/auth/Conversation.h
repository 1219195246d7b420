// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <security/pam_appl.h>

/// What prompts without echo are answered with. Null answers none.
struct Secrets {
    const char* password = nullptr;
    const char* newPassword = nullptr; ///< Set while the password is changed.
};

/// Hold one conversation with PAM: answer a prompt without echo that asks for a password with one of @p
/// secrets, a prompt with echo from standard input, and show errors and information on the standard streams.
/// @return PAM_SUCCESS with @p responses set to replies that PAM frees. Otherwise PAM_CONV_ERR or
/// PAM_BUF_ERR, with @p responses as it was and nothing left of the replies.
int holdConversation(int count, const pam_message** messages, pam_response** responses,
                     const Secrets& secrets);
