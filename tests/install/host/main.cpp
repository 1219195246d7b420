// SPDX-License-Identifier: BSD-3-Clause
// A program of somebody who has the installed library only: the log, an exception, the service, and the PAM
// header.

#include <AInteger.h>
#include <ALog.h>
#include <GorvVersion.h>
#include <KEPClient.h>
#include <NumberFormatException.h>
#include <PAMHelper.h>

int main()
{
    ALog log("host", stdout);
    log.setShowTimestamp(false);
    KEPClient client("host", 17);
    try {
        client.setProperty("host.port", AInteger::parseInt("4711"), true);
        AInteger::parseInt("none");
    } catch (const Exception& failure) {
        log.print("bad port \"%s\"\n", failure.getMessage().c_str());
    }
    int port = 0;
    if (gorvVersion() == GORV_VERSION && client.getProperty("host.port", port) &&
        PAMHelper::instanceForKEPId(1) == nullptr)
        log.print("port %d\n", port);
}
