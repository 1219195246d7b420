// SPDX-License-Identifier: BSD-3-Clause
// Properties of the configuration service: a number, and a text of any length; an event, and a remote
// function.

#include "KEPClient.h"
#include "ALog.h"

#include <cctype>
#include <cstdio>

/// What the service runs for "demo.shout": the request in capitals. It may run on any thread.
int shout(int* size, int maxReplySize, void* request, void* reply)
{
    if (*size > maxReplySize)
        return -2;
    for (int i = 0; i < *size; ++i)
        static_cast<char*>(reply)[i] =
            static_cast<char>(std::toupper(static_cast<unsigned char*>(request)[i]));
    return 0;
}

int main()
{
    ALog log("consoled", stdout); // outlives the client, so it comes first
    log.setShowTimestamp(false);
    KEPClient client("consoled", 17);
    client.setLog(log);
    client.initialize(); // always true: what went wrong is in the log

    std::printf("written: %d\n", client.setProperty("demo.port", 4711, true));
    std::printf("written: %d\n", client.setProperty("demo.port", 4711, true)); // it holds that already
    int port = 0;
    if (client.getProperty("demo.port", port))
        std::printf("port %d\n", port);

    client.setProperty("demo.banner", "Authorised use only", true);
    char* banner = nullptr; // replaced by an array that is large enough
    int size = 0;
    if (client.getProperty("demo.banner", &banner, size) == 0)
        std::printf("%d bytes: %s\n", size, banner);
    delete[] banner; // ours, also after a failure

    std::string motd;
    for (const char* text : {"Hello", "Hello"}) // 1: written, 0: there already, -1: refused
        std::printf("update: %d\n", client.updateProperty("demo.motd", text, true));
    if (client.getProperty("demo.motd", motd))
        std::printf("%s\n", motd.c_str());

    bool missing = false;
    std::printf("found: %d\n", client.getProperty("demo.nothing", missing));

    std::printf("raised: %d\n", client.notifyEvent("gui_event_config_changed", 0, nullptr));
    KEPClient::Callback* callback = shout;
    client.registerCallback("demo.shout", &callback);
    char request[] = {'h', 'e', 'l', 'l', 'o'};
    char reply[32];
    int replySize = 0; // stays as it is when the call fails
    const int code =
        client.callFunction("demo.shout", sizeof request, request, sizeof reply, replySize, reply);
    std::printf("code %d, %d bytes: %.*s\n", code, replySize, replySize, reply);
}
