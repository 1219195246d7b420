// SPDX-License-Identifier: BSD-3-Clause
#include "support/FakePam.h"
#include "auth/PamCalls.h" // these declarations allow a null handle
#include "support/Interposed.h"

#include <pthread.h>

FakePam& fakePam()
{
    static FakePam s_pam;
    return s_pam;
}

namespace {

int step(const pam_handle_t* pam, std::string_view call)
{
    FakePam& fake = fakePam();
    pthread_testcancel(); // as in a module that reads a file
    if (!fake.records)
        return PAM_SUCCESS;
    fake.calls.push_back((pam == nullptr ? "-" : std::to_string(pam->number)).append(" ").append(call));
    if (fake.onRecord)
        fake.onRecord(call);
    const auto status = fake.statuses.find(std::string(call.substr(0, call.find(' '))));
    return status == fake.statuses.end() ? PAM_SUCCESS : status->second;
}

int step(const pam_handle_t* pam, const char* name, int argument)
{
    return step(pam, std::string(name) + " " + std::to_string(argument));
}

} // namespace

INTERPOSED int pam_start(const char* service, const char* user, const pam_conv* conversation,
                         pam_handle_t** pam)
{
    const bool fails = fakePam().statuses.contains("start");
    *pam = fails ? nullptr : new pam_handle{*conversation, user, ++fakePam().transactions};
    return step(*pam, std::string("start ") + service + " " + user);
}

INTERPOSED int pamEnd(pam_handle_t* pam, int status)
{
    step(pam, "end", status);
    delete pam;
    return PAM_SUCCESS;
}

INTERPOSED int pamSetItem(pam_handle_t* pam, int item, const void* value)
{
    step(pam, (item == PAM_RHOST ? "rhost " : "? ") + std::string(static_cast<const char*>(value)));
    return PAM_SYSTEM_ERR; // not looked at
}

INTERPOSED int pam_putenv(pam_handle_t* pam, const char* text)
{
    step(pam, text);
    return PAM_BUF_ERR; // not looked at
}

INTERPOSED const char* pam_getenv(pam_handle_t*, const char* name)
{
    return std::string_view(name) == "SESSION_ID" ? fakePam().sessionId : nullptr;
}

INTERPOSED int pamAuthenticate(pam_handle_t* pam, int flags)
{
    const int status = step(pam, "authenticate", flags);
    return fakePam().onAuthenticate ? fakePam().onAuthenticate(*pam) : status;
}

INTERPOSED int pam_acct_mgmt(pam_handle_t* pam, int flags)
{
    return step(pam, "account", flags);
}

INTERPOSED int pamChangeToken(pam_handle_t* pam, int flags)
{
    const int status = step(pam, "change", flags);
    return fakePam().onChange ? fakePam().onChange(*pam) : status;
}

INTERPOSED int pamOpenSession(pam_handle_t* pam, int flags)
{
    return step(pam, "open", flags);
}

INTERPOSED int pam_close_session(pam_handle_t* pam, int flags)
{
    return step(pam, "close", flags);
}
