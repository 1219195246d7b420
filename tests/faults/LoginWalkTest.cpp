// SPDX-License-Identifier: BSD-3-Clause
#include "AUtil.h"
#include "EmbeddedPam.h"
#include "faults/Walk.h"
#include "support/Interposed.h"
#include "support/PamStack.h"
#include "support/ProcessMemory.h"
#include "sync/FastLock.h"

#include <atomic>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <set>
#include <utility>

/// libpam forgets the modules that it has loaded when pam_start fails half-way. What we owe it is counted.
/// What the loader keeps isn't known as its own here, where malloc has another caller.
INTERPOSED const char* __lsan_default_suppressions()
{
    return "leak:libpam.so\nleak:dl-open.c\n";
}

namespace {

/// A host's class, which uses the login in its destructor and closes a file.
struct HostLogin : PAMHelper {
    using PAMHelper::PAMHelper;
    ~HostLogin() override
    {
        stopSession();
        try {
            setSessionId("too late");
        } catch (const std::bad_alloc&) {
        }
        ::close(m_file);
    }
    const int m_file = ::dup(STDIN_FILENO);
};

/// From the check of a password to the end of the session.
struct Login : Road {
    Login(const ProcessMemory::Secret& secret, const char* user)
        : m_secret(secret), m_password(secret.text()), m_user(user)
    {
        m_outcome.reserve(100); // only what is watched shall allocate
    }

    void walk() override
    {
        try {
            m_helper = new HostLogin("::ffff:10.20.30.40", "2001:db8:1234:5678:9abc:def0:1234:5678");
            m_outcome = std::to_string(m_helper->authenticate(m_service, m_user, m_password, m_skip));
            if (m_helper->changePassword(m_password, m_next) == PAM_SUCCESS)
                m_outcome += " changed";
            if (m_helper->startSession())
                m_outcome += " opened";
            m_helper->setEnv("NAME", "value");
            m_helper->setSessionId(AUtil::generateRandomKey());
            if (PAMHelper::instanceForSessionId(m_helper->getSessionId()) == m_helper)
                m_outcome += " registered";
            EXPECT_NE(m_helper->authenticate(m_stranger, m_password, m_skip), PAM_SUCCESS);
            m_isEnding = true;
            m_helper->stopSession();
            std::exchange(m_helper, nullptr)->dispose();
        } catch (const std::bad_alloc&) {
        }
    }
    std::string arrive() override
    {
        if (m_helper != nullptr) {
            EXPECT_EQ(m_helper->m_password, std::string(m_helper->m_password.size(), '\0'));
            m_helper->dispose();
        }
        OPENSSL_cleanse(m_password.data(), m_password.size());
        const bool isSearched =
            Faults::kind() == Faults::Kind::Cancellation && ProcessMemory::canBeSearched();
        EXPECT_FALSE(isSearched && ProcessMemory::holds(m_secret)) << "a copy of the password";
        return m_outcome;
    }

    std::vector<Intrusion> intrusions() override
    {
        const auto lookUp = [] { PAMHelper::instanceForKEPId(7); };
        const auto stop = [this] {
            const FastLock lock(*PAMHelper::getMonitor());
            PAMHelper* const helper = PAMHelper::instanceForKEPId(7);
            if (m_isEnding && helper != nullptr) // beside no other call on it
                helper->stopSession();
        };
        return {{{lookUp}, {"pam_close_session"}}, {{stop}}};
    }

    const ProcessMemory::Secret& m_secret;
    // None of them fits into a string itself.
    std::string m_password;
    std::string m_service = "a-service-with-a-long-name", m_user;
    std::string m_stranger = "another-user-with-a-long-name";
    const std::string m_next = "a-new-password-that-libpam-leaks"; // where it has no memory to ask twice
    bool m_skip = false;
    std::atomic<bool> m_isEnding = false;
    std::string m_outcome = "-1";
    PAMHelper* m_helper = nullptr;
};

TEST(LoginWalkTest, NothingThatHappensToALoginLeavesItOpenOrLetsAWrongPasswordIn)
{
    const char* const user = "a-user-with-a-long-name";
    const char* const expired = "a-user-with-an-old-password";
    const PamStack stack(GORV_DEMO_MODULE, "a-service-with-a-long-name",
                         {{user, "7"}, {expired, "7", PamStack::Account().hash, "12"}}, false);
    useServiceFilesIn(stack.path().c_str());
    ::dlopen(GORV_DEMO_MODULE, RTLD_NOW); // loading it anew for each walk would take long
    const ProcessMemory::Secret right("wonderland"), wrong("a password that is wrong and long");
    const struct {
        const char* name;
        const ProcessMemory::Secret& secret;
        const char* undisturbed;
        const char* any; // PAM has much to fail with
        const char* none;
    } logins[] = {
        {user, right, "0 opened registered", ".*", "(0 opened|7) registered"},
        {user, wrong, "7 registered", "-1|[^0].*", "7 registered"},
        {expired, right, "12 changed opened registered", ".*", "(12 changed opened|12 opened|7) registered"},
    };
    for (const auto& [name, secret, undisturbed, any, none] : logins) {
        const auto begin = [&, of = name, with = &secret] { return std::make_unique<Login>(*with, of); };
        walkEachCall({"login",
                      begin,
                      undisturbed,
                      {{"calloc", any},
                       {"malloc", any},
                       {"new", any},
                       {"open", none},
                       {"read", none},
                       {"fcntl", any},
                       {"socket", any}}});
    }
    useServiceFilesIn(nullptr);
}

TEST(LoginWalkTest, KeysDifferWithAndWithoutTheDevice)
{
    for (const int failing : {-1, 0, 1, 4}) { // no call, its opening, its first and last reading
        std::set<std::string> groups;
        for (int i = 0; i < 50; ++i) {
            const Faults faults(Faults::Kind::Failure, failing);
            const std::string key = AUtil::generateRandomKey();
            EXPECT_EQ(key.size(), 32U);
            EXPECT_EQ(key.find_first_not_of("0123456789abcdef"), key.npos) << key;
            for (const int position : {0, 8, 16, 24})
                groups.insert(key.substr(position, 8));
        }
        EXPECT_EQ(groups.size(), 200U) << failing;
        EXPECT_EQ(*groups.rbegin() > "8", failing < 0); // rand() leaves the first bit of a group clear
    }
}

} // namespace
