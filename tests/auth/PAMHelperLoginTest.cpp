// SPDX-License-Identifier: BSD-3-Clause
#include "EmbeddedPam.h"
#include "PAMHelper.h"
#include "support/PamStack.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

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

    const PamStack m_stack{GORV_DEMO_MODULE, "test", {{"alice", "7"}, {"minus", "-1"}, {"crowd", "auto"}}};
};

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
    std::vector<std::jthread> threads;
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
    threads.clear(); // waits for them
    watched->dispose();
}

} // namespace
