#include "support/FakePam.h"
#include "support/Interposed.h"

FakePam& fakePam()
{
    static FakePam s_pam;
    return s_pam;
}

namespace {

/// Null is looked up like any handle: libpam's header declares it away, and the compiler drops comparisons.
int step(const pam_handle_t* pam, std::string_view call)
{
    FakePam& fake = fakePam();
    if (!fake.records)
        return PAM_SUCCESS;
    if (fake.onCall)
        fake.onCall(call);
    const auto known = fake.transactions.find(pam);
    const bool isNone = known == fake.transactions.end();
    fake.calls.push_back((isNone ? "-" : std::to_string(known->second->number)).append(" ").append(call));
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
    FakePam& fake = fakePam();
    *pam = nullptr;
    if (!fake.statuses.contains("start")) {
        auto transaction = std::make_unique<pam_handle>(pam_handle{*conversation, user, ++fake.started});
        *pam = transaction.get();
        fake.transactions[*pam] = std::move(transaction);
    }
    return step(*pam, std::string("start ") + service + " " + user);
}

INTERPOSED int pam_end(pam_handle_t* pam, int status)
{
    step(pam, "end", status);
    fakePam().transactions.erase(pam);
    return PAM_SUCCESS;
}

INTERPOSED int pam_set_item(pam_handle_t* pam, int item, const void* value)
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

INTERPOSED int pam_authenticate(pam_handle_t* pam, int flags)
{
    const int status = step(pam, "authenticate", flags);
    return fakePam().onAuthenticate ? fakePam().onAuthenticate(*pam) : status;
}

INTERPOSED int pam_acct_mgmt(pam_handle_t* pam, int flags)
{
    return step(pam, "account", flags);
}

INTERPOSED int pam_open_session(pam_handle_t* pam, int flags)
{
    return step(pam, "open", flags);
}

INTERPOSED int pam_close_session(pam_handle_t* pam, int flags)
{
    const int status = step(pam, "close", flags);
    if (fakePam().onClose)
        fakePam().onClose();
    return status;
}
