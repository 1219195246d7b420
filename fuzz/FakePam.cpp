#include "FakePam.h"

#include <string_view>

namespace fuzz {

FakePam& fakePam()
{
    static FakePam s_pam;
    return s_pam;
}

} // namespace fuzz

extern "C" {

int pam_start(const char*, const char* user, const pam_conv* conversation, pam_handle_t** handle)
{
    *handle = new pam_handle{*conversation, user, {}, {}};
    return PAM_SUCCESS;
}

int pam_end(pam_handle_t* handle, int)
{
    delete handle;
    return PAM_SUCCESS;
}

int pam_set_item(pam_handle_t* handle, int item, const void* value)
{
    if (item == PAM_RHOST)
        handle->remoteHost = static_cast<const char*>(value);
    return PAM_SUCCESS;
}

int pam_putenv(pam_handle_t* handle, const char* text)
{
    const std::string_view entry = text;
    const std::size_t sign = entry.find('=');
    handle->variables[std::string(entry.substr(0, sign))] = entry.substr(sign + 1);
    return PAM_SUCCESS;
}

const char* pam_getenv(pam_handle_t* handle, const char* name)
{
    const auto variable = handle->variables.find(name);
    return variable == handle->variables.end() ? nullptr : variable->second.c_str();
}

int pam_authenticate(pam_handle_t* handle, int)
{
    return fuzz::fakePam().onAuthenticate ? fuzz::fakePam().onAuthenticate(*handle) : PAM_SUCCESS;
}

int pam_acct_mgmt(pam_handle_t*, int)
{
    return PAM_SUCCESS;
}

int pam_open_session(pam_handle_t* handle, int)
{
    if (fuzz::fakePam().sessionId != nullptr)
        handle->variables["SESSION_ID"] = fuzz::fakePam().sessionId;
    return PAM_SUCCESS;
}

int pam_close_session(pam_handle_t*, int)
{
    return PAM_SUCCESS;
}
}
