#pragma once

#include <functional>
#include <map>
#include <security/pam_appl.h>
#include <string>

/// A transaction of the PAM that stands in for libpam in a fuzz target: nothing but what was put into it.
struct pam_handle {
    pam_conv conversation{};
    std::string user;
    std::string remoteHost;
    std::map<std::string, std::string> variables;
};

namespace fuzz {

/// What the next steps of any transaction do.
struct FakePam {
    std::function<int(pam_handle_t&)> onAuthenticate;
    const char* sessionId = nullptr; ///< Published as SESSION_ID when a session opens, unless null.
};

FakePam& fakePam();

} // namespace fuzz
