// SPDX-License-Identifier: BSD-3-Clause
#include "PAMHelper.h"

#include "auth/Conversation.h"
#include "auth/PamCalls.h"
#include "base/AtExit.h"
#include "base/CancelBlock.h"
#include "base/IntegerText.h"
#include "base/SharedField.h"
#include "sync/FastLock.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <openssl/crypto.h>
#include <utility>

// The C++ library's own is called. As C++20 has it, a copy would be made here.
extern template void std::basic_string<char>::swap(std::basic_string<char>&);

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

/// The string keeps its length.
void wipe(std::string& secret)
{
    OPENSSL_cleanse(secret.data(), secret.size());
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
    auto* const text = static_cast<char*>(std::malloc(size));
    if (text == nullptr)
        return PAM_BUF_ERR;
    const AtExit discard([=] {
        OPENSSL_cleanse(text, size);
        std::free(text);
    });
    const CancelBlock block; // libpam reports a name that it refuses
    std::memcpy(text, name, nameLength);
    text[nameLength] = '=';
    std::memcpy(text + nameLength + 1, value, valueLength + 1);
    return pam_putenv(handle, text);
}

/// Called from the destructor, too, which nothing may leave.
void endTransaction(pam_handle_t* handle, int status)
{
    const CancelBlock block;
    pamEnd(handle, status);
}

} // namespace

/// Held over a call that takes PAM steps. A cancellation waits: libpam and its modules, which are C, would
/// leave copies of the password behind, and a transaction that libpam can't end. In the end the helper has
/// forgotten what it answers prompts with.
class PAMHelper::PamStep {
public:
    explicit PamStep(PAMHelper& helper) : m_helper(helper) { m_helper.attachConversation(); }
    ~PamStep()
    {
        wipe(m_helper.m_password);
        m_helper.attachConversation();
    }
    PamStep(const PamStep&) = delete;
    PamStep& operator=(const PamStep&) = delete;

private:
    const CancelBlock m_block;
    const FastLock m_lock{instanceMapMonitor};
    PAMHelper& m_helper;
};

PAMHelper::PAMHelper(const char* remoteIP, const char* interfaceIP)
    : m_conv{}, m_pamHandle(nullptr), m_kepSessionId(0), m_wasRegistered(false),
      m_authResult(PAM_AUTHINFO_UNAVAIL), m_holds(1), m_fwInProgress(false), m_fwSemLocked(false),
      m_sessionOpen(false), m_disposed(false)
{
    setRemoteIP(remoteIP);
    setInterfaceIP(interfaceIP);
}

PAMHelper::~PAMHelper()
{
    leaveRegistries(); // again, if a derived class has entered one in its destructor
    if (m_pamHandle != nullptr)
        endTransaction(m_pamHandle, m_authResult);
}

int PAMHelper::authenticate(std::string& user, std::string& password, bool& skipAuth)
{
    const PamStep step(*this);
    if (m_user.empty() || m_user == user)
        return checkOwnUser(user, password, skipAuth);
    return checkOtherUser(user, password, skipAuth);
}

int PAMHelper::authenticate(std::string& service, std::string& user, std::string& password, bool& skipAuth)
{
    const PamStep step(*this);
    const int startStatus = startTransaction(service, user, password);
    return checkUserAndAccount(startStatus, skipAuth);
}

int PAMHelper::authenticate(std::string& service, std::string& user, std::string& password,
                            std::string& token, bool& skipAuth)
{
    const PamStep step(*this);
    const int startStatus = startTransaction(service, user, password);
    setEnv(kTokenVariable, token.c_str());
    return checkUserAndAccount(startStatus, skipAuth);
}

int PAMHelper::authenticate(std::string& service, std::string& user, std::string& password,
                            std::string& envName, std::string& envValue, bool& skipAuth)
{
    const PamStep step(*this);
    const int startStatus = startTransaction(service, user, password);
    setEnv(envName.c_str(), envValue.c_str());
    setEnv(kContextVariable, password.c_str());
    return checkUserAndAccount(startStatus, skipAuth);
}

int PAMHelper::authenticate(std::string& service, std::string& user, std::string& password,
                            std::string& contextId, std::string& envName, std::string& envValue,
                            bool& skipAuth)
{
    const PamStep step(*this);
    const int startStatus = startTransaction(service, user, password);
    setEnv(envName.c_str(), envValue.c_str());
    if (envName == kContextTrigger)
        setEnv(kContextVariable, contextId.c_str());
    return checkUserAndAccount(startStatus, skipAuth);
}

int PAMHelper::changePassword(const std::string& oldPassword, const std::string& newPassword)
{
    const PamStep step(*this);
    if (m_authResult != PAM_NEW_AUTHTOK_REQD)
        return PAM_PERM_DENIED;
    m_password = oldPassword;
    // libpam has a copy of the record, so that ours can tell converse() what else to answer.
    m_conv.appdata_ptr = const_cast<char*>(newPassword.c_str());
    const int status = pamChangeToken(m_pamHandle, PAM_CHANGE_EXPIRED_AUTHTOK);
    if (status == PAM_SUCCESS)
        setAuthResult(status);
    return status;
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

std::string& PAMHelper::getUser()
{
    return m_user;
}

int PAMHelper::setEnv(const char* name, const char* value)
{
    return putVariable(m_pamHandle, name, value);
}

const char* PAMHelper::getEnv(const char* name)
{
    return m_pamHandle == nullptr || name == nullptr ? nullptr : pam_getenv(m_pamHandle, name);
}

int PAMHelper::converse(int num_msg, const struct pam_message** msg, struct pam_response** resp,
                        void* appdata_ptr)
{
    const auto* helper = static_cast<const PAMHelper*>(appdata_ptr);
    Secrets secrets;
    if (helper != nullptr) {
        secrets.password = helper->m_password.c_str();
        if (helper->m_conv.appdata_ptr != helper)
            secrets.newPassword = static_cast<const char*>(helper->m_conv.appdata_ptr);
    }
    return holdConversation(num_msg, msg, resp, secrets);
}

bool PAMHelper::startSession()
{
    const PamStep step(*this);
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
    const CancelBlock block; // first, for the close as for a deletion
    hold();
    const AtExit leave([this] { letGo(1); });
    const FastLock lock(instanceMapMonitor);
    if (m_pamHandle == nullptr)
        return 0;
    closeSession();
    if (!m_disposed)
        eraseEntry();
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
    const auto entry = instanceMap.insert({newId, this}).first;
    entry->second = this;
    if (earlier != instanceMap.end() && earlier != entry)
        instanceMap.erase(earlier);
    m_wasRegistered = true;
    m_sessionId = std::move(newId);
}

std::string& PAMHelper::getSessionId()
{
    return m_sessionId;
}

void PAMHelper::setKEPSessionId(int id)
{
    const FastLock lock(instanceMapMonitor);
    writeShared(m_kepSessionId, id);
}

int PAMHelper::getKEPSessionId()
{
    return readShared(m_kepSessionId);
}

Monitor* PAMHelper::getMonitor()
{
    return &instanceMapMonitor;
}

// The end of a helper: its creator holds it, and so does each thread inside stopSession() or dispose(). The
// first dispose() marks it, closes its session and gives the creator's hold up. Every dispose() takes it out
// of the registries before it returns. Whoever lets go last deletes it, so nobody finds a helper that is
// being deleted. Once marked, a helper removes only the entry that names itself: its id may belong to a new
// login by then.

void PAMHelper::dispose()
{
    const CancelBlock block; // a derived class's destructor may do what a cancellation ends
    hold();
    int holds = 1;
    const AtExit leave([&] { letGo(holds); });
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete): stopSession() lets its own hold go, not this one
    const AtExit depart([this] { leaveRegistries(); });
    if (!beginDisposal())
        return;
    ++holds; // the creator's
    if (m_pamHandle != nullptr)
        stopSession();
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
    std::string exchanged = user;
    m_password = password;
    m_user.swap(exchanged); // hosts may hold a pointer into a text, which swapping back puts where it was
    const AtExit restore([&] { m_user.swap(exchanged); });
    pam_handle_t* temporary = nullptr;
    int status = PAM_AUTH_ERR;
    const AtExit end([&] { endTransaction(temporary, status); });
    const int startStatus = pam_start(m_service.c_str(), user.c_str(), &m_conv, &temporary);
    pamSetItem(temporary, PAM_RHOST, m_remoteIP.c_str());
    putVariable(temporary, kInterfaceVariable, m_interfaceIP.c_str());
    if (startStatus == PAM_SUCCESS)
        status = skipAuth ? PAM_SUCCESS : pamAuthenticate(temporary, 0);
    setAuthResult(status);
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
    instanceFwMap.insert({flag, this}).first->second = this; // may run out of memory
    writeShared(field, flag);
}

/// Called with the monitor held, which is given up for the call to PAM.
void PAMHelper::closeSession()
{
    if (!m_sessionOpen)
        return;
    // Cleared before the monitor is given up, so that of two threads only one closes the session.
    writeShared(m_sessionOpen, false);
    setAuthResult(closeUnlocked());
}

int PAMHelper::closeUnlocked()
{
    const FastUnlock unlock(instanceMapMonitor);
    return pam_close_session(m_pamHandle, 0);
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
        m_wasRegistered = false;
    }
    const FastLock lock(instanceFwMapMonitor);
    std::erase_if(instanceFwMap, [this](const auto& entry) { return entry.second == this; });
}

/// Mark the helper. Returns whether this call was the first. As with stopSession(), another login that holds
/// the helper's id loses it.
bool PAMHelper::beginDisposal()
{
    const FastLock lock(instanceMapMonitor);
    if (std::exchange(m_disposed, true))
        return false;
    const auto entry = instanceMap.find(m_sessionId);
    if (m_pamHandle != nullptr && entry != instanceMap.end() && entry->second != this)
        instanceMap.erase(entry);
    return true;
}

void PAMHelper::hold()
{
    std::atomic_ref<int>(m_holds).fetch_add(1, std::memory_order_relaxed);
}

void PAMHelper::letGo(int holds)
{
    if (std::atomic_ref<int>(m_holds).fetch_sub(holds, std::memory_order_acq_rel) != holds)
        return;
    m_holds = 1; // the deletion's own: a derived class's destructor may stop the session
    delete this;
}
