// SPDX-License-Identifier: BSD-3-Clause
#include "EmbeddedPam.h"
#include "PAMHelper.h"
#include "support/Cancelled.h"
#include "support/Interposed.h"
#include "support/PamStack.h"
#include "support/ProcessMemory.h"

#include <atomic>
#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <thread>
#include <vector>

static std::atomic<int> s_ends = 0; // of transactions, that succeeded

INTERPOSED int pam_end(pam_handle_t* handle, int lastStatus)
{
    const int status = nextDefinition<decltype(::pam_end)>("pam_end")(handle, lastStatus);
    s_ends += status == PAM_SUCCESS;
    return status;
}

namespace {

struct PAMHelperLoginTest : testing::Test {
    PAMHelperLoginTest() { useServiceFilesIn(m_stack.path().c_str()); }
    ~PAMHelperLoginTest() override
    {
        useServiceFilesIn(nullptr);
        EXPECT_TRUE(PAMHelper::instanceMap.empty());
        EXPECT_TRUE(PAMHelper::instanceFwMap.empty());
    }
    static PAMHelper* loggedIn(std::string user, std::string password = "wonderland", bool skip = false)
    {
        auto* const helper = new PAMHelper("::ffff:10.0.0.9", "10.0.0.1");
        std::string service = "test";
        EXPECT_EQ(helper->authenticate(service, user, password, skip), PAM_SUCCESS);
        return helper;
    }

    const PamStack m_stack{
        GORV_DEMO_MODULE,
        "test",
        {{"alice", "7"}, {"minus", "-1"}, {"crowd", "auto"}, {"dinah", "1", kLongHash, "12"}}};

private:
    static constexpr const char* kLongHash = // "through the looking-glass and what she found"
        "salt$45165fe7a6fe139c31c0eb56d10070bbe0e88fa69968bd3d693178de1e1ff9a0";
};

TEST_F(PAMHelperLoginTest, CancelledLoginLeavesNoPasswordNoSessionAndNoTransaction)
{
    const ProcessMemory::Secret secret("through the looking-glass and what she found"),
        newSecret("what Alice found there is nobody's business");
    std::string password = secret.text(), next = newSecret.text(), service = "test", user = "dinah",
                other = "alice";
    bool skip = false;
    s_ends = 0;
    EXPECT_TRUE(endsDespiteCancellation([&] {
        auto* const helper = new PAMHelper("10.0.0.9", "10.0.0.1");
        EXPECT_EQ(helper->authenticate(service, user, password, skip), PAM_NEW_AUTHTOK_REQD);
        EXPECT_TRUE(helper->startSession());
        EXPECT_EQ(helper->changePassword(password, next), PAM_SUCCESS);
        EXPECT_EQ(helper->authenticate(user, next, skip), PAM_SUCCESS);
        EXPECT_EQ(helper->authenticate(other, password, skip), PAM_AUTH_ERR);
        helper->dispose();
    }));
    EXPECT_EQ(s_ends, 2);
    EXPECT_NE(readFile(m_stack.path("record")).find("close user=dinah"), std::string::npos);
    OPENSSL_cleanse(password.data(), password.size());
    OPENSSL_cleanse(next.data(), next.size());
    for (const auto* each : {&secret, &newSecret}) { // a sanitizer's own memory is searched in vain
        EXPECT_FALSE(ProcessMemory::canBeSearched() && ProcessMemory::holds(*each));
    }
}

TEST_F(PAMHelperLoginTest, HelperIsFoundByTextAndNumberUntilItsSessionStops)
{
    PAMHelper *first = loggedIn("alice"), *second = loggedIn("alice"), *minus = loggedIn("minus");
    for (PAMHelper* helper : {first, second, minus})
        ASSERT_TRUE(helper->startSession());
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
    second->setSessionId("b");
    first->setSessionId("a"); // "b" is the second's by now
    EXPECT_EQ(PAMHelper::instanceForSessionId("b"), second);
    first->setSessionId("b");
    second->stopSession(); // a shared id is removed by whoever stops
    EXPECT_EQ(PAMHelper::instanceForSessionId("b"), nullptr);
    EXPECT_TRUE(second->startSession()); // again, on the same transaction
    for (PAMHelper* helper : {first, second, minus})
        helper->dispose();
}

TEST_F(PAMHelperLoginTest, ManyThreadsLogInFindAndDisposeWhileOthersLook)
{
    std::atomic<int> working = 8;
    PAMHelper* const watched = loggedIn("crowd");
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 25; ++round) {
                PAMHelper* const helper = loggedIn("crowd", "", true);
                const std::string id = std::to_string(t) + "." + std::to_string(round);
                helper->setSessionId(id);
                EXPECT_TRUE(helper->startSession());
                EXPECT_EQ(PAMHelper::instanceForSessionId(id), helper);
                helper->setFwInProgress(round % 2 == 0);
                if (round % 3 == 0)
                    helper->stopSession();
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
        if (PAMHelper* found = PAMHelper::instanceForKEPId(3))
            found->isValid();
        PAMHelper::getMonitor()->releaseLock();
        watched->isValid();
        watched->getKEPSessionId();
        watched->getAuthResult();
        watched->isFwInProgress();
    }
    for (auto& thread : threads)
        thread.join();
    watched->dispose();
}

} // namespace
