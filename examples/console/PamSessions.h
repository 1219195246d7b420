// SPDX-License-Identifier: BSD-3-Clause
#pragma once

/// Close every PAM session of this program that is open, without waiting for the PAM step of another login:
/// when the program ends with one that doesn't return.
void closePamSessions();
