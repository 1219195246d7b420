// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "support/Files.h"

#include <vector>

/// A stack of the examples' module and the accounts that it knows, in a scratch folder.
class PamStack : public TempDir {
public:
    struct Account {
        std::string user;
        std::string sessionId;
        std::string hash = // "wonderland", as the module stores it
            "salt$8808161c460734fc7bb91a1d1a26e7a2eb75ef0b18ce8538c05218d503e23c36";
        std::string status = "0"; // of the account
    };

    /// A password that is changed is kept, unless @p keeps is false.
    PamStack(const char* module, const char* service, const std::vector<Account>& accounts, bool keeps = true)
    {
        std::ofstream stack(path(service)), list(path("accounts"));
        for (const char* type : {"auth", "account", "password", "session"})
            stack << type << " required [" << module << "] [accounts=" << path("accounts")
                  << "] [record=" << path("record") << "]"
                  << (keeps ? " keep=yes\n" : "\n"); // there may be a blank in the paths
        for (const auto& [user, sessionId, hash, status] : accounts)
            list << user << ':' << hash << ':' << status << ':' << sessionId << '\n';
    }
};
