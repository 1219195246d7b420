// SPDX-License-Identifier: BSD-3-Clause
// One login from the password to the end of the session, one that is refused, and one whose password must be
// changed.

#include "PAMHelper.h"
#include "EmbeddedPam.h"

#include <cstdio>
#include <cstring>
#include <memory>

void logIn(std::string user, std::string password)
{
    std::string service = "gorvdemo";
    bool skipAuth = false;
    std::unique_ptr<PAMHelper, PAMHelper::Dispose> login(
        new PAMHelper("::ffff:192.168.1.20", "192.168.1.1")); // client, our interface
    int status = login->authenticate(service, user, password, skipAuth);
    if (status == PAM_NEW_AUTHTOK_REQD) { // a host asks the user for a new one
        std::printf("%s must have a new password\n", user.c_str());
        std::string newPassword = "down the rabbit-hole";
        status = login->changePassword(password, newPassword);
        explicit_bzero(newPassword.data(), newPassword.size());
    }
    explicit_bzero(password.data(), password.size()); // the helper wipes its own copy only
    if (status == PAM_SUCCESS && login->startSession()) {
        login->setSessionId("key-of-" + user);
        std::printf("session %d\n", login->getKEPSessionId()); // as the PAM stack numbers them
        login->setKEPSessionId(1001);                          // or as the host does, where no module does
        // Any thread may look the login up. It holds the monitor while it uses what it has found.
        const MonitorLock lock = PAMHelper::getMonitor()->acquireLock();
        PAMHelper* found = PAMHelper::instanceForKEPId(1001);
        if (found == PAMHelper::instanceForSessionId("key-of-" + user))
            std::printf("1001 is %s from %s\n", found->getUser().c_str(), found->getRemoteIP().c_str());
    } else {
        std::printf("%s was refused: %d\n", user.c_str(), login->getAuthResult());
    }
    // The owner disposes of it: closes the session, ends the transaction, deletes the helper.
}

int main()
{
    useServiceFilesIn(GORV_DEMO_CONFDIR); // the accounts of examples/embedded_pam, not the machine's
    logIn("alice", "wonderland");
    logIn("alice", "looking-glass");
    logIn("dave", "mad hatter");
    const bool left = PAMHelper::instanceForSessionId("key-of-alice") != nullptr;
    std::printf("still registered: %s\n", left ? "yes" : "no");
}
