#include "EmbeddedPam.h"
#include "PAMHelper.h"
#include "support/Files.h"
#include "support/ProcessMemory.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <thread>
#include <vector>

namespace {

// "wonderland", as the module stores it.
constexpr const char* kHash = "salt$8808161c460734fc7bb91a1d1a26e7a2eb75ef0b18ce8538c05218d503e23c36";

/// A PAM stack in a scratch folder, with whatever accounts a test needs.
class LoginTest : public testing::Test {
protected:
    LoginTest() {
        const std::string arguments =
            GORV_DEMO_MODULE " accounts=" + m_dir.path("accounts") + " record=" + m_dir.path("record") + "\n";
        std::ofstream service(m_dir.path("test"));
        for (const char* type : {"auth", "account", "session"}) service << type << " required " << arguments;
        m_confdir = m_dir.path().string();
        useServiceFilesIn(m_confdir.c_str());
        addAccount("alice", "0", "7");
        addAccount("bob", "0", "8");
    }
    ~LoginTest() override {
        useServiceFilesIn(nullptr);
        EXPECT_TRUE(PAMHelper::instanceMap.empty());
        EXPECT_TRUE(PAMHelper::instanceFwMap.empty());
    }

    /// @p tail: session id, and perhaps ":" open status and ":" close status.
    void addAccount(const std::string& user, const std::string& status, const std::string& tail) {
        std::ofstream(m_dir.path("accounts"), std::ios::app)
            << user << ':' << kHash << ':' << status << ':' << tail << '\n';
    }
    /// The lines that the module recorded since the last call.
    std::string recorded() {
        std::string text = readFile(m_dir.path("record"));
        std::filesystem::remove(m_dir.path("record"));
        return text;
    }

    int authenticate(PAMHelper& helper, std::string user, std::string password = "wonderland", bool skip = false) {
        return helper.authenticate(m_service, user, password, skip);
    }
    static PAMHelper* newHelper() { return new PAMHelper("::ffff:10.0.0.9", "10.0.0.1"); }
    PAMHelper* loggedIn(const std::string& user) {
        PAMHelper* helper = newHelper();
        EXPECT_EQ(authenticate(*helper, user), PAM_SUCCESS);
        return helper;
    }

    TempDir m_dir;
    std::string m_confdir;
    std::string m_service = "test";
};

TEST_F(LoginTest, StatusDecidesWhetherASessionOpens) {
    addAccount("carol", "13", "1");
    addAccount("dave", "12", "1");
    addAccount("erin", "0", "1:14");
    const struct {
        const char* user;
        const char* password;
        bool skipAuth;
        int status;
        bool opens;
    } cases[] = {
        {"alice", "wonderland", false, PAM_SUCCESS, true},
        {"alice", "looking-glass", false, PAM_AUTH_ERR, false},
        {"alice", "", true, PAM_SUCCESS, true},
        {"nobody", "wonderland", false, PAM_AUTH_ERR, false},
        {"carol", "wonderland", false, PAM_ACCT_EXPIRED, false},
        {"dave", "wonderland", false, PAM_NEW_AUTHTOK_REQD, true},
        {"erin", "wonderland", false, PAM_SUCCESS, false},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.user);
        PAMHelper* helper = newHelper();
        EXPECT_EQ(helper->getAuthResult(), PAM_AUTHINFO_UNAVAIL);
        EXPECT_FALSE(helper->startSession());
        EXPECT_EQ(authenticate(*helper, test.user, test.password, test.skipAuth), test.status);
        EXPECT_EQ(helper->getAuthResult(), test.status);
        EXPECT_EQ(helper->startSession(), test.opens);
        EXPECT_EQ(helper->isValid(), test.opens);
        EXPECT_EQ(helper->stopSession(), 0);
        EXPECT_FALSE(helper->isValid());
        helper->dispose();
    }
}

TEST_F(LoginTest, ModulesSeeTheAddressesAndTheVariablesOfEachForm) {
    std::string user = "alice", password = "wonderland", token = "t0ken", context = "ctx", name = "COLOUR";
    std::string value = "blue", trigger = "OIDC_LOGIN", almost = "OIDC_LOGIN2", empty;
    bool skip = false;
    const std::string common = "authenticate user=alice rhost=10.0.0.9 ";
    const struct {
        std::function<int(PAMHelper&)> authenticate;
        std::string expected;
    } forms[] = {
        {[&](PAMHelper& h) { return h.authenticate(m_service, user, password, skip); }, "INTERFACE_IP=10.0.0.1"},
        {[&](PAMHelper& h) { return h.authenticate(m_service, user, password, token, skip); },
         "JEXTOKEN=t0ken INTERFACE_IP=10.0.0.1"},
        {[&](PAMHelper& h) { return h.authenticate(m_service, user, password, name, value, skip); },
         "COLOUR=blue CONTEXT_ID=wonderland INTERFACE_IP=10.0.0.1"},
        {[&](PAMHelper& h) { return h.authenticate(m_service, user, password, context, trigger, value, skip); },
         "OIDC_LOGIN=blue CONTEXT_ID=ctx INTERFACE_IP=10.0.0.1"},
        {[&](PAMHelper& h) { return h.authenticate(m_service, user, password, context, almost, empty, skip); },
         "OIDC_LOGIN2= INTERFACE_IP=10.0.0.1"},
    };
    for (const auto& form : forms) {
        PAMHelper* helper = newHelper();
        EXPECT_EQ(form.authenticate(*helper), PAM_SUCCESS);
        const std::string lines = recorded();
        EXPECT_EQ(lines.substr(0, lines.find('\n')), common + form.expected);
        helper->dispose();
    }
}

TEST_F(LoginTest, HelperIsFoundByTextAndNumberUntilItsSessionStops) {
    addAccount("minus", "0", "-1");
    PAMHelper* first = loggedIn("alice");
    PAMHelper* second = loggedIn("alice");
    PAMHelper* minus = loggedIn("minus");
    for (PAMHelper* helper : {first, second, minus}) ASSERT_TRUE(helper->startSession());
    first->setSessionId("b");
    second->setSessionId("");
    minus->setSessionId("\xff");
    EXPECT_EQ(PAMHelper::instanceForSessionId("b"), first);
    EXPECT_EQ(PAMHelper::instanceForSessionId(""), second);
    EXPECT_EQ(PAMHelper::instanceForKEPId(7), second); // of two, the smallest text
    EXPECT_EQ(PAMHelper::instanceForKEPId(0xFFFFFFFFU), minus);
    EXPECT_EQ(PAMHelper::instanceForKEPId(9), nullptr);
    second->setSessionId("c"); // the earlier id is given up
    EXPECT_EQ(PAMHelper::instanceForSessionId(""), nullptr);
    EXPECT_EQ(PAMHelper::instanceForKEPId(7), first);
    first->stopSession();
    EXPECT_EQ(PAMHelper::instanceForSessionId("b"), nullptr);
    EXPECT_TRUE(first->startSession()); // again, on the same transaction
    for (PAMHelper* helper : {first, second, minus}) helper->dispose();
}

TEST_F(LoginTest, SharedSessionIdBelongsToTheLastAndIsRemovedByWhoeverStops) {
    PAMHelper* alice = loggedIn("alice");
    PAMHelper* bob = loggedIn("bob");
    alice->setSessionId("S1");
    bob->setSessionId("S1");
    EXPECT_EQ(PAMHelper::instanceForSessionId("S1"), bob);
    alice->setSessionId("S2"); // "S1" is bob's by now
    EXPECT_EQ(PAMHelper::instanceForSessionId("S1"), bob);
    alice->setSessionId("S1");
    bob->stopSession();
    EXPECT_EQ(PAMHelper::instanceForSessionId("S1"), nullptr);
    alice->dispose();
    bob->dispose();
}

TEST_F(LoginTest, DeletedHelperIsInNoMap) {
    PAMHelper* neverStarted = newHelper(); // no transaction, so nothing is stopped
    neverStarted->setSessionId("S1");
    neverStarted->setFwInProgress(true);
    neverStarted->setFWSemaphoreLock(false);
    neverStarted->dispose();
    EXPECT_TRUE(PAMHelper::instanceMap.empty());
    EXPECT_TRUE(PAMHelper::instanceFwMap.empty());
    PAMHelper* replaced = newHelper();
    PAMHelper* other = newHelper();
    replaced->setSessionId("S1");
    other->setSessionId("S1");
    replaced->dispose(); // the entry is the other's
    EXPECT_EQ(PAMHelper::instanceForSessionId("S1"), other);
    other->getSessionId() = "changed behind its back";
    other->dispose();
}

TEST_F(LoginTest, FirmwareMapNamesWhoSetEachValueLast) {
    PAMHelper* a = newHelper();
    PAMHelper* b = newHelper();
    a->setFwInProgress(true);
    b->setFWSemaphoreLock(true);
    EXPECT_TRUE(a->isFwInProgress() && !a->isFwSemLocked() && b->isFwSemLocked() && !b->isFwInProgress());
    EXPECT_EQ(PAMHelper::instanceFwMap.at(true), b);
    a->setFwInProgress(false);
    EXPECT_EQ(PAMHelper::instanceFwMap.at(false), a);
    EXPECT_EQ(PAMHelper::instanceFwMap.at(true), b);
    a->dispose();
    b->dispose();
}

TEST_F(LoginTest, NoCopyOfThePasswordOutlivesThePlainForm) {
    if (!ProcessMemory::canBeSearched()) GTEST_SKIP() << "a sanitizer's own memory is searched in vain";
    const ProcessMemory::Secret secret("a passphrase that is far too long for any small buffer");
    PAMHelper* helper = newHelper();
    std::string user = "alice", password = secret.text();
    bool skip = false;
    EXPECT_TRUE(ProcessMemory::holds(secret)); // the caller's own copy: the search works
    helper->authenticate(m_service, user, password, skip);
    OPENSSL_cleanse(password.data(), password.size());
    EXPECT_FALSE(ProcessMemory::holds(secret));
    helper->dispose();
}

TEST_F(LoginTest, ManyThreadsLogInFindAndDisposeWhileOthersLook) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 25;
    addAccount("crowd", "0", "auto");
    std::atomic<int> working = kThreads;
    PAMHelper* const watched = loggedIn("crowd");
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < kRounds; ++round) {
                PAMHelper* helper = newHelper();
                const std::string id = std::to_string(t) + "." + std::to_string(round);
                EXPECT_EQ(authenticate(*helper, "crowd", "", true), PAM_SUCCESS);
                helper->setSessionId(id);
                EXPECT_TRUE(helper->startSession());
                EXPECT_EQ(PAMHelper::instanceForSessionId(id), helper);
                helper->setFwInProgress(round % 2 == 0);
                if (round % 3 == 0) helper->stopSession();
                helper->dispose();
                if (t == 0) { // a session is opened and closed by one thread
                    watched->startSession();
                    watched->stopSession();
                }
            }
            --working;
        });
    }
    while (working > 0) {
        PAMHelper::getMonitor()->fastLock();
        if (PAMHelper* found = PAMHelper::instanceForKEPId(3)) found->isValid();
        PAMHelper::getMonitor()->releaseLock();
        watched->isValid();
        watched->getKEPSessionId();
        watched->getAuthResult();
        watched->isFwInProgress();
    }
    for (auto& thread : threads) thread.join();
    watched->dispose();
}

} // namespace
