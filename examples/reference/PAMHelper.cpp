// One login from the password to the end of the session, and one that is refused.

#include "PAMHelper.h"
#include "EmbeddedPam.h"

#include <cstdio>
#include <cstring>

void logIn(std::string user, std::string password)
{
    std::string service = "gorvdemo";
    bool skipAuth = false;
    auto* login = new PAMHelper("::ffff:192.168.1.20", "192.168.1.1"); // client, our interface
    const int status = login->authenticate(service, user, password, skipAuth);
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
    login->dispose(); // closes the session, ends the transaction, deletes the helper
}

int main()
{
    useServiceFilesIn(GORV_DEMO_CONFDIR); // the accounts of examples/embedded_pam, not the machine's
    logIn("alice", "wonderland");
    logIn("alice", "looking-glass");
    const bool left = PAMHelper::instanceForSessionId("key-of-alice") != nullptr;
    std::printf("still registered: %s\n", left ? "yes" : "no");
}
