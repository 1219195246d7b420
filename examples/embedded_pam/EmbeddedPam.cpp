// SPDX-License-Identifier: BSD-3-Clause
#include "EmbeddedPam.h"

#include <security/pam_appl.h>

namespace {

const char* s_confdir = nullptr;

} // namespace

void useServiceFilesIn(const char* confdir)
{
    s_confdir = confdir;
}

// The program's own definition comes before libpam's when the loader resolves the library's call.
extern "C" __attribute__((visibility("default"))) int
pam_start(const char* service, const char* user, const struct pam_conv* conversation, pam_handle_t** handle)
{
    return pam_start_confdir(service, user, conversation, s_confdir, handle);
}
