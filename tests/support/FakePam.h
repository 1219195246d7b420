// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <functional>
#include <map>
#include <security/pam_appl.h>
#include <string>
#include <string_view>
#include <vector>

/// A transaction of the PAM that stands in for libpam.
struct pam_handle {
    pam_conv conversation{};
    std::string user;
    int number = 0; // from 1
};

/// What the stand-in answers and records.
struct FakePam {
    std::function<int(pam_handle_t&)> onAuthenticate, onChange;
    const char* sessionId = nullptr;                ///< The variable SESSION_ID.
    bool records = false;                           ///< Otherwise no argument is kept or copied.
    std::vector<std::string> calls;                 ///< "1 account 0": the transaction or "-", and the call.
    std::function<void(std::string_view)> onRecord; ///< Within each recorded call.
    std::map<std::string, int> statuses; ///< By a recorded call's first word; success for the others.
    int transactions = 0;                ///< Started so far.
};

FakePam& fakePam();
