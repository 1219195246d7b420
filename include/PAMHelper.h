// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "GorvApi.h"
#include "Monitor.h"

#include <map>
#include <security/pam_appl.h>
#include <string>

/// One login of one user through PAM, without a terminal, and the process-wide registry of such logins.
///
/// A helper answers PAM's password prompt from memory, hands the modules the client's address and the address
/// of the interface that the client reached, and keeps the PAM status of its last step. It writes no log and
/// throws nothing of its own. When memory runs out an operation throws std::bad_alloc: the registries are
/// then as before, and the status is that of the last step that was taken.
///
/// Create a helper with new, one per login, and give it up with dispose(), which deletes it. Every PAM step
/// of every helper runs under one process-wide monitor, and so do the registry operations; only the closing
/// of a session and the end of a transaction run without it. One thread at a time drives a login; any thread
/// may look it up and read what is said to be safe. Several threads may stop a login and dispose of it at
/// once, but not beside another call on it. A helper that a look-up returns stays its creator's, who may
/// dispose of it at any time: hold getMonitor() while you use one that isn't yours. A cancellation of a
/// thread inside a call waits until the call is over. When the program exits nobody may use the class any
/// more.
///
/// Logins are the process's that made them. The monitors aren't held over a fork, which would have to wait
/// for the slowest login: a child that is forked beside one may find a monitor held for ever. Fork workers
/// that use the class before any thread does; every other child calls nothing of it until it has called exec.
///
/// Give a daemon a PAM service file of its own: "login" prints the message of the day, and a stack with
/// pam_loginuid opens sessions from the main thread only. Give pam_unix the option "nodelay": otherwise
/// libpam sleeps some two seconds after a wrong password with the monitor held, and the logins and look-ups
/// of all threads wait. Leave LC_MESSAGES at "C" when you call setlocale(): PAM translates its prompts, a
/// translated one isn't answered (see converse()), and a right password gets 20 (PAM_AUTHTOK_ERR). A host
/// that is built with AddressSanitizer or ThreadSanitizer links libcrypt, or pam_unix crashes in it.
///
/// PAM modules may start programs and wait for them. While a program of SystemExec::execute() runs, its
/// SIGCHLD handler may take such a child away or wait for it, and the login fails or hangs. Those of
/// SystemExec::run() run beside logins.
///
/// @code
/// std::unique_ptr<PAMHelper, PAMHelper::Dispose> login(
///     new PAMHelper("::ffff:192.168.1.20", "192.168.1.1"));
/// bool skipAuth = false;
/// if (login->authenticate(service, user, password, skipAuth) == PAM_SUCCESS && login->startSession())
///     login->setSessionId(key);
/// // ... later, perhaps on another thread
/// login.reset();
/// @endcode
///
/// @include examples/reference/PAMHelper.cpp
/// @verbinclude examples/reference/PAMHelper.out
class GORV_API PAMHelper {
public:
    /// The deleter of a std::unique_ptr that owns a helper.
    struct Dispose {
        /// Disposes of @p helper.
        void operator()(PAMHelper* helper) const { helper->dispose(); }
    };

    /// Guards instanceMap and serialises the PAM steps of all helpers.
    static Monitor instanceMapMonitor;
    /// The registered helpers by session id. Owns none of them; hold instanceMapMonitor while you read it,
    /// and change it through setSessionId() only.
    static std::map<std::string, PAMHelper*> instanceMap;
    /// Guards instanceFwMap and the firmware flags. While you hold it, call nothing else of this class:
    /// disposing of a helper takes it after the other monitor was held.
    static Monitor instanceFwMapMonitor;
    /// For each flag value, the helper that last set either firmware flag to it. Owns none of them; hold
    /// instanceFwMapMonitor while you read it.
    static std::map<bool, PAMHelper*> instanceFwMap;

    /// A login that has not authenticated yet. Either address may be null, which leaves it empty; both are
    /// reduced as setRemoteIP() says.
    PAMHelper(const char* remoteIP, const char* interfaceIP);

    /// End the PAM transaction. Hosts call dispose() instead: a helper that is deleted directly leaves the
    /// registries too late for a look-up that meets a derived class half destroyed. A derived class's
    /// destructor may call anything but dispose().
    virtual ~PAMHelper();

    PAMHelper(const PAMHelper&) = delete;
    PAMHelper& operator=(const PAMHelper&) = delete;

    /// @name Authentication
    /// The forms with a service start the helper's PAM transaction, authenticate and check the account. Call
    /// one of them once per helper: a second call starts a new transaction and never ends the first. With
    /// @p skipAuth true the password isn't checked, the account is.
    ///
    /// Arguments are only read, for PAM up to their first zero byte. The helper's copy of the password is
    /// wiped before the call returns, on every path; what PAM keeps and the caller's own string are not.
    ///
    /// @return the PAM status of the last step taken: 0 (PAM_SUCCESS), 12 (PAM_NEW_AUTHTOK_REQD) for an
    /// account that must change its password, 7 (PAM_AUTH_ERR) when PAM could not be started, or PAM's own
    /// status.
    /// @{

    /// Check the password of a login again, without an account check: for the helper's own user on its own
    /// transaction, for another user on a temporary one. The helper keeps its user; one that has none yet
    /// takes this one, without starting a transaction.
    int authenticate(std::string& user, std::string& password, bool& skipAuth);

    /// Authenticate without extra variables in the PAM environment.
    int authenticate(std::string& service, std::string& user, std::string& password, bool& skipAuth);

    /// Authenticate with "JEXTOKEN" set to @p token.
    int authenticate(std::string& service, std::string& user, std::string& password, std::string& token,
                     bool& skipAuth);

    /// Authenticate with @p envName set to @p envValue and "CONTEXT_ID" set to the password. PAM keeps that
    /// variable as long as the transaction.
    int authenticate(std::string& service, std::string& user, std::string& password, std::string& envName,
                     std::string& envValue, bool& skipAuth);

    /// Authenticate with @p envName set to @p envValue and, if @p envName is "OIDC_LOGIN", "CONTEXT_ID" set
    /// to @p contextId.
    int authenticate(std::string& service, std::string& user, std::string& password, std::string& contextId,
                     std::string& envName, std::string& envValue, bool& skipAuth);
    /// @}

    /// Change a password that must be changed: after a form with a service has returned 12, also with the
    /// session open. The modules ask for @p oldPassword whoever the process runs as (the flag is
    /// PAM_CHANGE_EXPIRED_AUTHTOK). pam_unix writes the shadow file, which takes root. The service file needs
    /// lines of the type "password": those of "other" decide without.
    ///
    /// While it runs, a prompt without echo that contains "password: " or "Password: " is answered: with
    /// @p newPassword if it contains "new " or "New " ("Retype new password: "), else with @p oldPassword
    /// ("Current password: "). Any other fails. What is no such prompt is handled as in converse(), and so
    /// are the modules' words on a new password that they don't take.
    ///
    /// Arguments are only read, up to their first zero byte. The helper keeps neither of them; the caller's
    /// own strings are the caller's to wipe.
    /// @return PAM's status. Only success is stored for getAuthResult(): after a failure, which may be tried
    ///   again, that stays 12. The result is 6 (PAM_PERM_DENIED), without a call to PAM, unless it was 12.
    int changePassword(const std::string& oldPassword, const std::string& newPassword);

    /// Returns the PAM status of the last step; 9 (PAM_AUTHINFO_UNAVAIL) before any. The step may have been
    /// the check of another user, a check that was skipped or the closing of the session: 0 means that a user
    /// is logged in only right after a form with a service. Safe from any thread.
    int getAuthResult();

    /// Set the client's address, handed to PAM as PAM_RHOST when the next transaction starts. Null changes
    /// nothing. Of an IPv4 address in IPv6-mapped form, "::ffff:10.20.30.40", only the IPv4 part is kept: of
    /// any text with a dot what follows its last colon, unless that colon comes first. So give it neither a
    /// port nor a zone: "10.0.0.1:5000" becomes "5000", "fe80::1%eth0.100" becomes "1%eth0.100". Nor a name:
    /// PAM may look that up, for as long as it takes, while every login waits.
    void setRemoteIP(const char* address);
    /// Set the address of the interface that the client reached, handed to PAM as "INTERFACE_IP". Null and
    /// mapped addresses as with setRemoteIP().
    void setInterfaceIP(const char* address);
    /// Returns the client's address, as long as the helper lives.
    std::string& getRemoteIP();
    /// Returns the user that authenticate() was given (while another is checked, that one), as long as the
    /// helper lives. A pointer into the text is right again when that check is over.
    std::string& getUser();

    /// Put @p name = @p value (neither null) into the PAM environment; an empty value is kept as such.
    /// @return PAM's status; 0, without effect, before a transaction was started.
    int setEnv(const char* name, const char* value);
    /// Returns the PAM variable @p name, or null, as for a null name. The text is PAM's and valid until the
    /// variable changes or the helper is disposed of.
    const char* getEnv(const char* name);

    /// The PAM conversation of every transaction that a helper starts; @p appdata_ptr is the helper. Only PAM
    /// calls it. Answers a prompt without echo with the password if it is "Password: " or contains
    /// "password: ", in this case and with the blank, and fails at any other. Answers a prompt with echo from
    /// standard input with the next 511 characters at most, up to a line's end and with it; a signal whose
    /// handler was installed without SA_RESTART fails it. Writes errors to standard error and information to
    /// standard output. A prompt with echo reads the process's standard input with the monitor held: give a
    /// daemon /dev/null there.
    /// @return PAM_SUCCESS with @p resp set to replies that PAM frees, else PAM_CONV_ERR or PAM_BUF_ERR.
    static int converse(int num_msg, const struct pam_message** msg, struct pam_response** resp,
                        void* appdata_ptr);

    /// Open the PAM session, and forget one that is open already: stop that first. Take its numeric id from
    /// the PAM variable "SESSION_ID" (what it begins with, in decimal, 0x, 0b or octal, of which the low 32
    /// bits count; 0 if the variable is absent, unchanged if it begins with no number).
    /// Call it right after a form with a service has returned 0 or 12: such a status that something else left
    /// behind, see getAuthResult(), says nothing about this user.
    /// @return whether the session is open; false, without a call to PAM, unless the last status is 0 or 12.
    ///   The status of a session that PAM doesn't open isn't kept.
    bool startSession();
    /// Close the PAM session if it is open, store PAM's status for getAuthResult(), and remove the registry
    /// entry under this helper's session id, whichever helper has registered under it last. The helper keeps
    /// the id: setSessionId() registers it again. Does nothing before a transaction was started.
    /// @return 0
    int stopSession();
    /// Returns whether the PAM session is open. Safe from any thread.
    bool isValid();

    /// Register this helper under @p sessionId (which may be empty), replacing whoever is registered under
    /// it, and give up the registration under an earlier id.
    void setSessionId(const std::string& sessionId);
    /// Returns the session id, empty before setSessionId().
    std::string& getSessionId();
    /// Set the numeric session id for a stack that sets no "SESSION_ID": after startSession(), which sets it
    /// anew.
    void setKEPSessionId(int id);
    /// Returns the numeric session id, 0 before startSession() or setKEPSessionId(). Safe from any thread.
    int getKEPSessionId();

    /// Returns the helper registered under @p sessionId, or null.
    static PAMHelper* instanceForSessionId(const std::string& sessionId);
    /// Returns the registered helper with the numeric id @p id, or null. Of several, the one with the
    /// smallest session id. Looks at every registered helper.
    static PAMHelper* instanceForKEPId(unsigned int id);
    /// Returns the monitor that guards the registry and the PAM steps, not locked. It is recursive: hold it
    /// across several calls.
    static Monitor* getMonitor();

    /// Close the session if need be, take the helper out of the registries, end the transaction and delete
    /// the helper. Like stopSession() it removes the entry under the session id, whichever helper has it, if
    /// a transaction was started.
    ///
    /// Of threads that call it at once one does the work and the others return. When a call returns, no
    /// look-up finds the helper; a thread that is inside stopSession() or dispose() still may be closing the
    /// session, and the last of them ends the transaction and deletes the helper. A thread that comes later
    /// must not call it: where several may end a login, give the pointer to exactly one, or let each look the
    /// login up and dispose of it within one hold of getMonitor(), which keeps all PAM steps waiting for the
    /// end of the session.
    void dispose();

    /// Record that a firmware update of this login is in progress or not.
    void setFwInProgress(bool flag);
    /// Record that this login holds the firmware semaphore or not.
    void setFWSemaphoreLock(bool flag);
    /// Returns what setFwInProgress() recorded. Safe from any thread.
    bool isFwInProgress();
    /// Returns what setFWSemaphoreLock() recorded. Safe from any thread.
    bool isFwSemLocked();

private:
    class GORV_LOCAL PamStep;

    GORV_LOCAL void attachConversation();
    GORV_LOCAL int startTransaction(const std::string& service, const std::string& user,
                                    const std::string& password);
    GORV_LOCAL int checkUserAndAccount(int startStatus, bool skipAuth);
    GORV_LOCAL int checkOwnUser(const std::string& user, const std::string& password, bool skipAuth);
    GORV_LOCAL int checkOtherUser(const std::string& user, const std::string& password, bool skipAuth);
    GORV_LOCAL void setAuthResult(int status);
    GORV_LOCAL void readKEPSessionId();
    GORV_LOCAL void setFlag(bool& field, bool flag);
    GORV_LOCAL void closeSession();
    GORV_LOCAL int closeUnlocked();
    GORV_LOCAL std::map<std::string, PAMHelper*>::iterator ownEntry();
    GORV_LOCAL void eraseEntry();
    GORV_LOCAL void leaveRegistries();
    GORV_LOCAL bool beginDisposal();
    GORV_LOCAL void hold();
    GORV_LOCAL void letGo(int holds);

    struct pam_conv m_conv;
    pam_handle_t* m_pamHandle; // owned
    int m_kepSessionId;
    bool m_wasRegistered; // an entry of instanceMap may name this helper
    std::string m_sessionId;
    int m_authResult;
    int m_holds; // deleted when it comes to 0: the creator's, and one for each call that must end before
    std::string m_service;
    std::string m_user;
    std::string m_password; // zero bytes between two authentications
    std::string m_remoteIP;
    std::string m_interfaceIP;
    bool m_fwInProgress;
    bool m_fwSemLocked;
    bool m_sessionOpen;
    bool m_disposed;
};
