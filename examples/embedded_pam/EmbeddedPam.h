// SPDX-License-Identifier: BSD-3-Clause
#pragma once

/// Makes every PAM transaction of this program, the library's included, read its service files from @p
/// confdir instead of /etc/pam.d. Null, the state at the start, means the machine's own files. Call it before
/// threads start; the text must stay valid.
void useServiceFilesIn(const char* confdir);
