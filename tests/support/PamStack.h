#pragma once

#include "support/Files.h"

#include <vector>

/// A stack of the examples' module and the accounts that it knows, in a scratch folder of their own.
class PamStack {
public:
    struct Account {
        std::string user;
        std::string sessionId; ///< "auto" for a new number each time
        std::string hash =     // "wonderland", as the module stores it
            "salt$8808161c460734fc7bb91a1d1a26e7a2eb75ef0b18ce8538c05218d503e23c36";
    };

    /// @p options go to the module as well.
    PamStack(const char* module, const std::string& service, const std::vector<Account>& accounts,
             const std::string& options = {})
    {
        std::ofstream stack(m_dir.path(service)), list(m_dir.path("accounts"));
        for (const char* type : {"auth", "account", "session"})
            stack << type << " required " << module << " accounts=" << m_dir.path("accounts") << options
                  << '\n';
        for (const auto& [user, sessionId, hash] : accounts)
            list << user << ':' << hash << ":0:" << sessionId << '\n';
    }

    const TempDir& dir() const { return m_dir; }

private:
    TempDir m_dir;
};
