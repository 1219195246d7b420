// SPDX-License-Identifier: BSD-3-Clause
// Logs one user in through PAM and walks the whole road of a login: authenticate, open the session, register
// it, find it again, close it, dispose of it.
//
//   login -user NAME [-service NAME] [-remote ADDRESS] [-interface ADDRESS] [-system]
//
// The password is asked for on a terminal and read from standard input otherwise. Without -system the program
// uses the service files and accounts beside it; with -system it uses the machine's own /etc/pam.d.
// Exit status: 0 logged in, 1 refused, 2 wrong usage or no temporary file.

#include "AComponentLog.h"
#include "ALog.h"
#include "CommandLine.h"
#include "EmbeddedPam.h"
#include "HiddenInput.h"
#include "PAMHelper.h"

#include <cstdio>
#include <cstring>
#include <security/pam_appl.h>
#include <string>

namespace {

struct Options {
    std::string service;
    std::string user;
    std::string remote = "::ffff:192.168.1.20";
    std::string interface = "192.168.1.1";
    bool system = false;
};

bool parse(int argc, char** argv, Options& options)
{
    CommandLine line(argc, argv);
    const auto take = [&line](const char* name, std::string& option) {
        if (const char* value = line.getArg(name))
            option = value;
    };
    options.system = line.hasArg("system");
    options.service = options.system ? "login" : "gorvdemo";
    take("service", options.service);
    take("user", options.user);
    take("remote", options.remote);
    take("interface", options.interface);
    return !options.user.empty();
}

std::string readPassword(const std::string& user)
{
    const HiddenInput input;
    if (input.isTerminal()) {
        std::printf("Password for %s: ", user.c_str());
        std::fflush(stdout);
    }
    std::setvbuf(stdin, nullptr, _IONBF, 0); // no copy stays in the stream's buffer
    char line[256];
    const bool read = std::fgets(line, sizeof line, stdin) != nullptr;
    line[read ? std::strcspn(line, "\n") : 0] = '\0';
    std::string password = line;
    explicit_bzero(line, sizeof line);
    return password;
}

const char* statusName(int status)
{
    switch (status) {
    case PAM_SUCCESS:
        return "PAM_SUCCESS";
    case PAM_AUTH_ERR:
        return "PAM_AUTH_ERR";
    case PAM_AUTHINFO_UNAVAIL:
        return "PAM_AUTHINFO_UNAVAIL";
    case PAM_USER_UNKNOWN:
        return "PAM_USER_UNKNOWN";
    case PAM_MAXTRIES:
        return "PAM_MAXTRIES";
    case PAM_PERM_DENIED:
        return "PAM_PERM_DENIED";
    case PAM_NEW_AUTHTOK_REQD:
        return "PAM_NEW_AUTHTOK_REQD";
    case PAM_ACCT_EXPIRED:
        return "PAM_ACCT_EXPIRED";
    default:
        return pam_strerror(nullptr, status);
    }
}

void report(AComponentLog& log, const char* step, int status)
{
    std::printf("%-14s %d %s\n", step, status, statusName(status));
    log.print(" %s: %d %s\n", step, status, statusName(status));
}

void report(AComponentLog& log, const char* step, const std::string& result)
{
    std::printf("%-14s %s\n", step, result.c_str());
    log.print(" %s: %s\n", step, result.c_str());
}

const char* yesNo(bool value)
{
    return value ? "yes" : "no";
}

/// Returns whether the user was logged in.
bool logIn(const Options& options, AComponentLog& log)
{
    auto* login = new PAMHelper(options.remote.c_str(), options.interface.c_str());
    report(log, "remote", login->getRemoteIP());

    std::string service = options.service;
    std::string user = options.user;
    std::string password = readPassword(user);
    bool skipAuth = false;
    const int status = login->authenticate(service, user, password, skipAuth);
    explicit_bzero(password.data(), password.size());
    report(log, "authenticate", status);

    const bool opened = login->startSession();
    report(log, "session open", yesNo(opened));
    if (opened) {
        const int id = login->getKEPSessionId();
        login->setSessionId("demo-" + std::to_string(id));
        report(log, "session id", login->getSessionId());
        report(log, "found by name", yesNo(PAMHelper::instanceForSessionId(login->getSessionId()) == login));
        report(log, "found by id", yesNo(PAMHelper::instanceForKEPId(static_cast<unsigned>(id)) == login));
        const std::string name = login->getSessionId();
        login->stopSession();
        report(log, "close", login->getAuthResult());
        report(log, "still found", yesNo(PAMHelper::instanceForSessionId(name) != nullptr));
    }
    login->dispose();
    return opened;
}

void showFile(FILE* file)
{
    std::rewind(file);
    char line[512];
    while (std::fgets(line, sizeof line, file) != nullptr)
        std::printf("  | %s", line);
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!parse(argc, argv, options)) {
        std::fputs(
            "usage: login -user NAME [-service NAME] [-remote ADDRESS] [-interface ADDRESS] [-system]\n",
            stderr);
        return 2;
    }
    if (!options.system)
        useServiceFilesIn(GORV_DEMO_CONFDIR);

    FILE* file = std::tmpfile();
    if (file == nullptr) {
        std::perror("login: no temporary file for the log");
        return 2;
    }
    ALog log("login", file);
    AComponentLog steps("steps", log);
    const bool loggedIn = logIn(options, steps);
    steps.flush();

    std::puts("the log:");
    showFile(file);
    std::fclose(file);
    return loggedIn ? 0 : 1;
}
