#pragma once

#include <functional>
#include <map>
#include <memory>
#include <security/pam_appl.h>
#include <string>
#include <string_view>
#include <vector>

/// A transaction of the PAM that stands in for libpam. They are numbered from 1.
struct pam_handle {
    pam_conv conversation{};
    std::string user;
    int number = 0;
};

/// What the stand-in answers and records.
struct FakePam {
    std::function<int(pam_handle_t&)> onAuthenticate;
    std::function<void()> onClose;
    std::function<void(std::string_view)> onCall; ///< Before each recorded call.
    const char* sessionId = nullptr;              ///< The variable SESSION_ID.
    std::map<std::string, int> statuses; ///< By a call's first word, for recorded calls; success for others.
    bool records = false;                ///< Otherwise no argument is kept or copied.
    std::vector<std::string> calls;      ///< "1 authenticate 0": the transaction, "-" for none, and the call.
    int started = 0;
    std::map<const pam_handle*, std::unique_ptr<pam_handle>> transactions; ///< Not ended so far.
};

FakePam& fakePam();
