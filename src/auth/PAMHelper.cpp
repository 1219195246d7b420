#include "PAMHelper.h"

#include "auth/PamCalls.h"
#include "base/IntegerText.h"
#include "sync/FastLock.h"
#include "base/SharedField.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <openssl/crypto.h>
#include <utility>

// Construction in this order gives the two monitors the ids 2 and 3.
Monitor PAMHelper::instanceMapMonitor;
std::map<std::string, PAMHelper*> PAMHelper::instanceMap;
Monitor PAMHelper::instanceFwMapMonitor;
std::map<bool, PAMHelper*> PAMHelper::instanceFwMap;

namespace {

constexpr const char* kInterfaceVariable = "INTERFACE_IP";
constexpr const char* kTokenVariable = "JEXTOKEN";
constexpr const char* kContextVariable = "CONTEXT_ID";
constexpr const char* kSessionVariable = "SESSION_ID";
constexpr const char* kContextTrigger = "OIDC_LOGIN";
constexpr std::size_t kInputLineSize = 512;
constexpr int kDeleteAfterwards = 1; // m_calls: the lowest bit, below the count
constexpr int kOneCall = 2;

/// Overwrites a secret at the end of the scope, on every path. The string keeps its length.
class WipeAtExit {
public:
    explicit WipeAtExit(std::string& secret) : m_secret(secret) {}
    ~WipeAtExit()
    {
        if (!m_secret.empty())
            OPENSSL_cleanse(m_secret.data(), m_secret.size());
    }
    WipeAtExit(const WipeAtExit&) = delete;
    WipeAtExit& operator=(const WipeAtExit&) = delete;

private:
    std::string& m_secret;
};

/// The replies of one conversation. Cleansed and freed unless they are released to PAM.
class Replies {
public:
    explicit Replies(int count)
        : m_count(count), m_replies(static_cast<pam_response*>(
                              std::calloc(static_cast<std::size_t>(count), sizeof(pam_response))))
    {}
    ~Replies()
    {
        if (m_replies == nullptr)
            return;
        for (int i = 0; i < m_count; ++i)
            discard(m_replies[i].resp);
        std::free(m_replies);
    }
    Replies(const Replies&) = delete;
    Replies& operator=(const Replies&) = delete;

    bool allocated() const { return m_replies != nullptr; }
    pam_response& at(int index) { return m_replies[index]; }
    pam_response* release() { return std::exchange(m_replies, nullptr); }

private:
    static void discard(char* text)
    {
        if (text == nullptr)
            return;
        OPENSSL_cleanse(text, std::strlen(text));
        std::free(text);
    }

    int m_count;
    pam_response* m_replies;
};

bool asksForPassword(const char* prompt)
{
    return prompt != nullptr &&
           (std::strcmp(prompt, "Password: ") == 0 || std::strstr(prompt, "password: ") != nullptr);
}

bool answerFromMemory(const char* prompt, const char* password, pam_response& reply)
{
    if (!asksForPassword(prompt) || password == nullptr)
        return false;
    reply.resp = strdup(password);
    return reply.resp != nullptr;
}

bool answerFromInput(const char* prompt, pam_response& reply)
{
    if (prompt != nullptr)
        std::fputs(prompt, stderr);
    char line[kInputLineSize];
    if (std::fgets(line, sizeof line, stdin) != nullptr)
        reply.resp = strdup(line);
    OPENSSL_cleanse(line, sizeof line);
    return reply.resp != nullptr;
}

bool showText(const char* text, FILE* stream)
{
    if (text == nullptr || *text == '\0')
        return true;
    std::fputs(text, stream);
    if (text[std::strlen(text) - 1] != '\n')
        std::fputc('\n', stream);
    return true;
}

/// Returns false when the message fails the conversation.
bool handleMessage(const pam_message& message, const char* password, pam_response& reply)
{
    switch (message.msg_style) {
    case PAM_PROMPT_ECHO_OFF:
        return answerFromMemory(message.msg, password, reply);
    case PAM_PROMPT_ECHO_ON:
        return answerFromInput(message.msg, reply);
    case PAM_ERROR_MSG:
        return showText(message.msg, stderr);
    case PAM_TEXT_INFO:
        return showText(message.msg, stdout);
    default:
        return false;
    }
}

void assignAddress(std::string& field, const char* address)
{
    if (address == nullptr)
        return;
    field = address;
    const std::size_t lastColon = field.rfind(':');
    const bool isMapped =
        field.find('.') != std::string::npos && lastColon != std::string::npos && lastColon != 0;
    if (isMapped)
        field.erase(0, lastColon + 1);
}

/// The value may be a secret, so its text is cleansed before its memory is given back.
int putVariable(pam_handle_t* handle, const char* name, const char* value)
{
    if (handle == nullptr)
        return PAM_SUCCESS;
    const std::size_t nameLength = std::strlen(name);
    const std::size_t valueLength = std::strlen(value);
    const std::size_t size = nameLength + 1 + valueLength + 1;
    const std::unique_ptr<char, decltype(&std::free)> text(static_cast<char*>(std::malloc(size)), &std::free);
    if (text == nullptr)
        return PAM_BUF_ERR;
    std::memcpy(text.get(), name, nameLength);
    text.get()[nameLength] = '=';
    std::memcpy(text.get() + nameLength + 1, value, valueLength + 1);
    const int status = pam_putenv(handle, text.get());
    OPENSSL_cleanse(text.get(), size);
    return status;
}

} // namespace

PAMHelper::PAMHelper(const char* remoteIP, const char* interfaceIP)
    : m_conv{}, m_pamHandle(nullptr), m_kepSessionId(0), m_authResult(PAM_AUTHINFO_UNAVAIL), m_calls(0),
      m_fwInProgress(false), m_fwSemLocked(false), m_sessionOpen(false), m_disposed(false),
      m_wasRegistered(false), m_hasSetFlag(false)
{
    setRemoteIP(remoteIP);
    setInterfaceIP(interfaceIP);
}

PAMHelper::~PAMHelper()
{
    leaveRegistries();
    if (m_pamHandle != nullptr)
        pamEnd(m_pamHandle, m_authResult);
}

int PAMHelper::authenticate(std::string& user, std::string& password, bool& skipAuth)
{
    const FastLock lock(instanceMapMonitor);
    const WipeAtExit wipe(m_password);
    attachConversation();
    if (m_user.empty() || m_user == user)
        return checkOwnUser(user, password, skipAuth);
    return checkOtherUser(user, password, skipAuth);
}

int PAMHelper::authenticate(std::string& service, std::string& user, std::string& password, bool& skipAuth)
{
    const FastLock lock(instanceMapMonitor);
    const WipeAtExit wipe(m_password);
    const int startStatus = startTransaction(service, user, password);
    return checkUserAndAccount(startStatus, skipAuth);
}

int PAMHelper::authenticate(std::string& service, std::string& user, std::string& password,
                            std::string& token, bool& skipAuth)
{
    const FastLock lock(instanceMapMonitor);
    const WipeAtExit wipe(m_password);
    const int startStatus = startTransaction(service, user, password);
    setEnv(kTokenVariable, token.c_str());
    return checkUserAndAccount(startStatus, skipAuth);
}

int PAMHelper::authenticate(std::string& service, std::string& user, std::string& password,
                            std::string& envName, std::string& envValue, bool& skipAuth)
{
    const FastLock lock(instanceMapMonitor);
    const WipeAtExit wipe(m_password);
    const int startStatus = startTransaction(service, user, password);
    setEnv(envName.c_str(), envValue.c_str());
    setEnv(kContextVariable, password.c_str());
    return checkUserAndAccount(startStatus, skipAuth);
}

int PAMHelper::authenticate(std::string& service, std::string& user, std::string& password,
                            std::string& contextId, std::string& envName, std::string& envValue,
                            bool& skipAuth)
{
    const FastLock lock(instanceMapMonitor);
    const WipeAtExit wipe(m_password);
    const int startStatus = startTransaction(service, user, password);
    setEnv(envName.c_str(), envValue.c_str());
    if (envName == kContextTrigger)
        setEnv(kContextVariable, contextId.c_str());
    return checkUserAndAccount(startStatus, skipAuth);
}

int PAMHelper::getAuthResult()
{
    return readShared(m_authResult);
}

void PAMHelper::setRemoteIP(const char* address)
{
    assignAddress(m_remoteIP, address);
}

void PAMHelper::setInterfaceIP(const char* address)
{
    assignAddress(m_interfaceIP, address);
}

std::string& PAMHelper::getRemoteIP()
{
    return m_remoteIP;
}

int PAMHelper::setEnv(const char* name, const char* value)
{
    return putVariable(m_pamHandle, name, value);
}

const char* PAMHelper::getEnv(const char* name)
{
    return m_pamHandle == nullptr ? nullptr : pam_getenv(m_pamHandle, name);
}

int PAMHelper::converse(int num_msg, const struct pam_message** msg, struct pam_response** resp,
                        void* appdata_ptr)
{
    if (num_msg < 1 || num_msg > PAM_MAX_NUM_MSG || msg == nullptr || resp == nullptr)
        return PAM_CONV_ERR;
    Replies replies(num_msg);
    if (!replies.allocated())
        return PAM_BUF_ERR;
    const auto* helper = static_cast<const PAMHelper*>(appdata_ptr);
    const char* password = helper == nullptr ? nullptr : helper->m_password.c_str();
    for (int i = 0; i < num_msg; ++i) {
        if (!handleMessage(*msg[i], password, replies.at(i)))
            return PAM_CONV_ERR;
    }
    *resp = replies.release();
    return PAM_SUCCESS;
}

bool PAMHelper::startSession()
{
    const FastLock lock(instanceMapMonitor);
    writeShared(m_sessionOpen, false);
    const bool mayOpen = m_authResult == PAM_SUCCESS || m_authResult == PAM_NEW_AUTHTOK_REQD;
    if (!mayOpen || pamOpenSession(m_pamHandle, 0) != PAM_SUCCESS)
        return false;
    writeShared(m_sessionOpen, true);
    readKEPSessionId();
    return true;
}

int PAMHelper::stopSession()
{
    enterCall();
    {
        const FastLock lock(instanceMapMonitor);
        if (m_pamHandle != nullptr) {
            closeSession();
            eraseEntry();
        }
    }
    leaveCall();
    return 0;
}

bool PAMHelper::isValid()
{
    return readShared(m_sessionOpen);
}

void PAMHelper::setSessionId(const std::string& sessionId)
{
    const FastLock lock(instanceMapMonitor);
    // All that can run out of memory comes first: the registry and m_sessionId then change together.
    std::string newId = sessionId;
    const auto earlier = ownEntry();
    const auto entry = instanceMap.insert_or_assign(newId, this).first;
    if (earlier != instanceMap.end() && earlier != entry)
        instanceMap.erase(earlier);
    m_wasRegistered = true;
    m_sessionId.swap(newId);
}

std::string& PAMHelper::getSessionId()
{
    return m_sessionId;
}

int PAMHelper::getKEPSessionId()
{
    return readShared(m_kepSessionId);
}

Monitor* PAMHelper::getMonitor()
{
    return &instanceMapMonitor;
}

void PAMHelper::dispose()
{
    enterCall();
    bool isFirst = false;
    {
        const FastLock lock(instanceMapMonitor);
        isFirst = !std::exchange(m_disposed, true);
    }
    if (isFirst) {
        if (m_pamHandle != nullptr)
            stopSession();
        std::atomic_ref<int>(m_calls).fetch_or(kDeleteAfterwards);
    }
    leaveCall(); // NOLINT(clang-analyzer-cplusplus.NewDelete): stopSession() left its own call, not this one
}

void PAMHelper::setFwInProgress(bool flag)
{
    setFlag(m_fwInProgress, flag);
}

void PAMHelper::setFWSemaphoreLock(bool flag)
{
    setFlag(m_fwSemLocked, flag);
}

bool PAMHelper::isFwInProgress()
{
    return readShared(m_fwInProgress);
}

bool PAMHelper::isFwSemLocked()
{
    return readShared(m_fwSemLocked);
}

void PAMHelper::attachConversation()
{
    m_conv.conv = &PAMHelper::converse;
    m_conv.appdata_ptr = this;
}

/// Fill the fields and start the helper's transaction. Returns the status of pam_start.
int PAMHelper::startTransaction(const std::string& service, const std::string& user,
                                const std::string& password)
{
    m_service = service;
    m_user = user;
    m_password = password;
    attachConversation();
    m_pamHandle = nullptr;
    return pam_start(m_service.c_str(), user.c_str(), &m_conv, &m_pamHandle);
}

/// The steps that every full form ends with, once its own variables are put.
int PAMHelper::checkUserAndAccount(int startStatus, bool skipAuth)
{
    pamSetItem(m_pamHandle, PAM_RHOST, m_remoteIP.c_str());
    setEnv(kInterfaceVariable, m_interfaceIP.c_str());
    if (startStatus != PAM_SUCCESS) {
        setAuthResult(PAM_AUTH_ERR);
        return PAM_AUTH_ERR;
    }
    int status = skipAuth ? PAM_SUCCESS : pamAuthenticate(m_pamHandle, 0);
    setAuthResult(status);
    if (status == PAM_SUCCESS) {
        status = pam_acct_mgmt(m_pamHandle, 0);
        setAuthResult(status);
    }
    return status;
}

int PAMHelper::checkOwnUser(const std::string& user, const std::string& password, bool skipAuth)
{
    m_user = user;
    m_password = password;
    const int status = skipAuth ? PAM_SUCCESS : pamAuthenticate(m_pamHandle, 0);
    setAuthResult(status);
    return status;
}

int PAMHelper::checkOtherUser(const std::string& user, const std::string& password, bool skipAuth)
{
    std::string otherUser = user;
    m_password = password;
    m_user.swap(otherUser); // nothing below can throw before the helper's own user is back
    pam_handle_t* temporary = nullptr;
    const int startStatus = pam_start(m_service.c_str(), user.c_str(), &m_conv, &temporary);
    pamSetItem(temporary, PAM_RHOST, m_remoteIP.c_str());
    putVariable(temporary, kInterfaceVariable, m_interfaceIP.c_str());
    int status = PAM_AUTH_ERR;
    if (startStatus == PAM_SUCCESS)
        status = skipAuth ? PAM_SUCCESS : pamAuthenticate(temporary, 0);
    setAuthResult(status);
    pamEnd(temporary, status);
    m_user.swap(otherUser);
    return status;
}

void PAMHelper::setAuthResult(int status)
{
    writeShared(m_authResult, status);
}

void PAMHelper::readKEPSessionId()
{
    const char* text = getEnv(kSessionVariable);
    int id = 0;
    if (text == nullptr || parseIntegerText(text, id))
        writeShared(m_kepSessionId, id);
}

void PAMHelper::setFlag(bool& field, bool flag)
{
    const FastLock lock(instanceFwMapMonitor);
    writeShared(field, flag);
    writeShared(m_hasSetFlag, true);
    instanceFwMap.insert_or_assign(flag, this);
}

/// Called with the monitor held, which is given up for the call to PAM.
void PAMHelper::closeSession()
{
    if (!m_sessionOpen)
        return;
    // Cleared before the monitor is given up, so that of two threads only one closes the session.
    writeShared(m_sessionOpen, false);
    instanceMapMonitor.releaseLock();
    const int status = pam_close_session(m_pamHandle, 0);
    instanceMapMonitor.fastLock();
    setAuthResult(status);
}

/// The entry that names this helper; there is one at most. Called with the monitor held.
std::map<std::string, PAMHelper*>::iterator PAMHelper::ownEntry()
{
    const auto entry = instanceMap.find(m_sessionId);
    if (entry != instanceMap.end() && entry->second == this)
        return entry;
    if (!m_wasRegistered)
        return instanceMap.end();
    // Another helper has taken the entry over, or the host has changed the text behind the reference.
    return std::find_if(instanceMap.begin(), instanceMap.end(),
                        [this](const auto& other) { return other.second == this; });
}

/// Erase the entry under this helper's session id, whichever helper it names. Called with the monitor held.
void PAMHelper::eraseEntry()
{
    const auto entry = instanceMap.find(m_sessionId);
    if (entry == instanceMap.end())
        return;
    if (entry->second == this)
        m_wasRegistered = false;
    instanceMap.erase(entry);
}

/// No map may point at a deleted helper. One monitor at a time: nothing takes both.
void PAMHelper::leaveRegistries()
{
    {
        const FastLock lock(instanceMapMonitor);
        const auto entry = ownEntry();
        if (entry != instanceMap.end())
            instanceMap.erase(entry);
    }
    if (!readShared(m_hasSetFlag))
        return;
    const FastLock lock(instanceFwMapMonitor);
    std::erase_if(instanceFwMap, [this](const auto& entry) { return entry.second == this; });
}

// A thread may still be stopping a session, or waiting for the monitor in dispose(), when another disposes of
// the helper. The last of them to leave deletes it.

void PAMHelper::enterCall()
{
    std::atomic_ref<int>(m_calls).fetch_add(kOneCall, std::memory_order_relaxed);
}

void PAMHelper::leaveCall()
{
    const int before = std::atomic_ref<int>(m_calls).fetch_sub(kOneCall, std::memory_order_acq_rel);
    if (before == (kOneCall | kDeleteAfterwards))
        delete this;
}
