#pragma once

#include <security/pam_appl.h>

/// Hold one conversation with PAM: answer a prompt without echo that asks for the password with @p password
/// (null answers none), a prompt with echo from standard input, and show errors and information on the
/// standard streams.
/// @return PAM_SUCCESS with @p responses set to replies that PAM frees. Otherwise PAM_CONV_ERR or
/// PAM_BUF_ERR, with @p responses as it was and nothing left of the replies.
int holdConversation(int count, const pam_message** messages, pam_response** responses, const char* password);
