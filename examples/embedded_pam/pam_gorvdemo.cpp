// SPDX-License-Identifier: BSD-3-Clause
// A small PAM module that serves the examples and the tests without touching the machine's accounts.
//
// Arguments:  accounts=FILE   one account a line:
//                             name:hash:account status:session id[:open status[:close status]]
//             keep=yes        append to that file what an account becomes whose password is changed: the last
//                             line of a name counts. Otherwise a new password is checked and forgotten
//             record=FILE     append a line for each step: its name, user, client address and PAM environment
//
// The statuses are PAM's numbers. The session id is published as the PAM variable
// SESSION_ID: a text as it stands, "auto" for a new number each time, or nothing for no variable.

#include <array>
#include <atomic>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <security/pam_ext.h>
#include <security/pam_modules.h>
#include <string>
#include <string_view>
#include <utility>

namespace {

enum Field : std::size_t { Name, Hash, AccountStatus, SessionId, OpenStatus, CloseStatus, FieldCount };

using Account = std::array<std::string, FieldCount>;
using Stream = std::unique_ptr<FILE, decltype(&std::fclose)>;

std::string argument(int argc, const char** argv, std::string_view name)
{
    for (int i = 0; i < argc; ++i) {
        const std::string_view text = argv[i];
        if (text.substr(0, name.size()) == name)
            return std::string(text.substr(name.size()));
    }
    return {};
}

Account parseAccount(std::string_view line)
{
    Account account;
    for (std::string& field : account) {
        const std::size_t end = line.find(':');
        field = line.substr(0, end);
        if (end == std::string_view::npos)
            break;
        line.remove_prefix(end + 1);
    }
    return account;
}

bool findAccount(const std::string& path, const char* user, Account& result)
{
    const Stream file(std::fopen(path.c_str(), "re"), &std::fclose);
    if (file == nullptr)
        return false;
    char line[512];
    bool isFound = false;
    while (std::fgets(line, sizeof line, file.get()) != nullptr) {
        line[std::strcspn(line, "\n")] = '\0';
        Account account = parseAccount(line);
        if (account[Name] != user)
            continue;
        result = std::move(account);
        isFound = true;
    }
    return isFound;
}

bool appendAccount(const std::string& path, const Account& account)
{
    Stream file(std::fopen(path.c_str(), "ae"), &std::fclose);
    if (file == nullptr)
        return false;
    for (const std::string& field : account)
        std::fprintf(file.get(), "%s%c", field.c_str(), &field == &account.back() ? '\n' : ':');
    return std::fclose(file.release()) == 0;
}

int statusOf(const std::string& text)
{
    int status = PAM_SUCCESS;
    std::from_chars(text.data(), text.data() + text.size(), status);
    return status;
}

/// A stored hash is a salt, a dollar sign and the hexadecimal PBKDF2-SHA256 of the password. Returns an empty
/// one on failure.
std::string hashOf(const std::string& salt, const char* password)
{
    constexpr int kRounds = 1000;
    std::array<unsigned char, 32> key{};
    if (PKCS5_PBKDF2_HMAC(password, -1, reinterpret_cast<const unsigned char*>(salt.data()),
                          static_cast<int>(salt.size()), kRounds, EVP_sha256(), key.size(), key.data()) != 1)
        return {};
    std::string computed = salt + '$';
    for (const unsigned char byte : key) {
        computed += "0123456789abcdef"[byte >> 4];
        computed += "0123456789abcdef"[byte & 15];
    }
    return computed;
}

bool matches(const std::string& stored, const char* password)
{
    const std::string computed = hashOf(stored.substr(0, stored.find('$')), password);
    return !computed.empty() && stored.size() == computed.size() &&
           CRYPTO_memcmp(stored.data(), computed.data(), computed.size()) == 0;
}

void record(const std::string& path, const char* step, pam_handle_t* handle)
{
    if (path.empty())
        return;
    const Stream file(std::fopen(path.c_str(), "ae"), &std::fclose);
    if (file == nullptr)
        return;
    const void* user = nullptr;
    const void* host = nullptr;
    pam_get_item(handle, PAM_USER, &user);
    pam_get_item(handle, PAM_RHOST, &host);
    std::fprintf(file.get(), "%s user=%s rhost=%s", step, static_cast<const char*>(user),
                 host == nullptr ? "" : static_cast<const char*>(host));
    char** variables = pam_getenvlist(handle);
    for (char** variable = variables; variable != nullptr && *variable != nullptr; ++variable) {
        std::fprintf(file.get(), " %s", *variable);
        std::free(*variable);
    }
    std::free(variables);
    std::fputc('\n', file.get());
}

/// Records the step and looks the user up.
int beginStep(pam_handle_t* handle, int argc, const char** argv, const char* step, Account& account)
{
    const char* user = nullptr;
    if (pam_get_user(handle, &user, nullptr) != PAM_SUCCESS || user == nullptr)
        return PAM_USER_UNKNOWN;
    record(argument(argc, argv, "record="), step, handle);
    return findAccount(argument(argc, argv, "accounts="), user, account) ? PAM_SUCCESS : PAM_USER_UNKNOWN;
}

/// Run a step. What it throws must not travel through libpam, which is written in C and frees nothing then.
template <typename Step>
int guarded(Step step)
{
    try {
        return step();
    } catch (const std::bad_alloc&) {
        return PAM_BUF_ERR;
    }
}

int authenticate(pam_handle_t* handle, int argc, const char** argv)
{
    Account account;
    const int found = beginStep(handle, argc, argv, "authenticate", account);
    const char* password = nullptr;
    const int asked = pam_get_authtok(handle, PAM_AUTHTOK, &password, nullptr);
    if (asked != PAM_SUCCESS)
        return asked;
    // An unknown user costs as much time as a wrong password.
    const bool right = matches(account[Hash], password);
    return right && found == PAM_SUCCESS ? PAM_SUCCESS : PAM_AUTH_ERR;
}

int checkAccount(pam_handle_t* handle, int argc, const char** argv)
{
    Account account;
    const int found = beginStep(handle, argc, argv, "account", account);
    return found == PAM_SUCCESS ? statusOf(account[AccountStatus]) : found;
}

/// Called twice: to check the old password, and to take the new one.
int changePassword(pam_handle_t* handle, int flags, int argc, const char** argv)
{
    const bool isCheck = (flags & PAM_PRELIM_CHECK) != 0;
    Account account;
    const int found = beginStep(handle, argc, argv, isCheck ? "check" : "change", account);
    const char* password = nullptr;
    const int asked = pam_get_authtok(handle, isCheck ? PAM_OLDAUTHTOK : PAM_AUTHTOK, &password, nullptr);
    if (asked != PAM_SUCCESS || found != PAM_SUCCESS)
        return asked != PAM_SUCCESS ? asked : found;
    if (isCheck)
        return matches(account[Hash], password) ? PAM_SUCCESS : PAM_AUTH_ERR;
    account[Hash] = hashOf("another salt", password);
    account[AccountStatus] = "0";
    const bool isDone = !account[Hash].empty() && (argument(argc, argv, "keep=").empty() ||
                                                   appendAccount(argument(argc, argv, "accounts="), account));
    return isDone ? PAM_SUCCESS : PAM_AUTHTOK_ERR;
}

int openSession(pam_handle_t* handle, int argc, const char** argv)
{
    static std::atomic<int> s_lastSession = 0;
    Account account;
    const int found = beginStep(handle, argc, argv, "open", account);
    if (found != PAM_SUCCESS)
        return found;
    std::string& id = account[SessionId];
    if (id == "auto")
        id = std::to_string(++s_lastSession);
    if (!id.empty())
        pam_putenv(handle, ("SESSION_ID=" + id).c_str());
    return statusOf(account[OpenStatus]);
}

int closeSession(pam_handle_t* handle, int argc, const char** argv)
{
    Account account;
    const int found = beginStep(handle, argc, argv, "close", account);
    return found == PAM_SUCCESS ? statusOf(account[CloseStatus]) : found;
}

} // namespace

#define MODULE_ENTRY extern "C" __attribute__((visibility("default"))) int

MODULE_ENTRY pam_sm_authenticate(pam_handle_t* handle, int, int argc, const char** argv)
{
    return guarded([&] { return authenticate(handle, argc, argv); });
}

MODULE_ENTRY pam_sm_setcred(pam_handle_t*, int, int, const char**)
{
    return PAM_SUCCESS;
}

MODULE_ENTRY pam_sm_acct_mgmt(pam_handle_t* handle, int, int argc, const char** argv)
{
    return guarded([&] { return checkAccount(handle, argc, argv); });
}

MODULE_ENTRY pam_sm_chauthtok(pam_handle_t* handle, int flags, int argc, const char** argv)
{
    return guarded([&] { return changePassword(handle, flags, argc, argv); });
}

MODULE_ENTRY pam_sm_open_session(pam_handle_t* handle, int, int argc, const char** argv)
{
    return guarded([&] { return openSession(handle, argc, argv); });
}

MODULE_ENTRY pam_sm_close_session(pam_handle_t* handle, int, int argc, const char** argv)
{
    return guarded([&] { return closeSession(handle, argc, argv); });
}
