// Attaches to the controller's configuration service, registers for its events, writes and reads properties,
// raises an event and calls a remote function.
//
//   config_client
//
// The program runs on whichever libkep.so.1 the loader finds. With the bundled one, properties and functions
// live in this process, so that it also has to offer the function that it calls.
// Exit status: 0, or 1 when the service refused something.

#include "ALog.h"
#include "KEPClient.h"

#include <cctype>
#include <cstdio>
#include <optional>
#include <string>

namespace {

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

/// Reads a string of any length. The client grows the buffer, which stays ours whatever happens.
std::optional<std::string> readText(KEPClient& client, const char* name)
{
    char* buffer = nullptr;
    int size = 0;
    std::optional<std::string> text;
    try {
        if (client.getProperty(name, &buffer, size) == 0 && buffer != nullptr)
            text = buffer;
    } catch (const char* reason) {
        std::printf("%s: %s\n", name, reason);
    }
    delete[] buffer;
    return text;
}

} // namespace

int main()
{
    // The log must outlive the client, so it comes first.
    ALog log("config_client", stderr);
    KEPClient client("config_client", 17);
    client.setLog(log);
    client.initialize(); // true in every case: what went wrong is in the log

    // A property is written only when that changes it: the second call is false and writes nothing.
    const bool first = client.setProperty("demo.port", 4711, true);
    const bool second = client.setProperty("demo.port", 4711, true);
    std::printf("demo.port written: %d, then %d\n", first, second);
    int port = 0;
    const bool portRead = client.getProperty("demo.port", port);
    std::printf("demo.port: %d\n", port);

    client.setProperty("demo.banner", "Authorised use only", true);
    const std::optional<std::string> banner = readText(client, "demo.banner");
    std::printf("demo.banner: %s\n", banner ? banner->c_str() : "(none)");

    const bool raised = client.notifyEvent("gui_event_config_changed", 0, nullptr);
    std::printf("event raised: %d\n", raised);

    KEPClient::Callback* callback = shout;
    client.registerCallback("demo.shout", &callback);
    char request[] = {'h', 'e', 'l', 'l', 'o'};
    char reply[32] = {};
    int replySize = 0; // stays as it is when the call fails
    const int code =
        client.callFunction("demo.shout", sizeof request, request, sizeof reply, replySize, reply);
    std::printf("demo.shout: code %d, %d bytes: %.*s\n", code, replySize, replySize, reply);

    return portRead && banner && raised && code == 0 ? 0 : 1;
}
