// SPDX-License-Identifier: BSD-3-Clause
#include "PAMHelper.h"
#include "support/FakePam.h"
#include "support/Files.h"
#include "support/OtherThread.h"
#include "support/ProcessMemory.h"

#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <thread>

namespace {

using Calls = std::vector<std::string>;

bool isMonitorHeld()
{
    pthread_mutex_t* const mutex = &PAMHelper::instanceMapMonitor.m_mutex;
    const auto isTaken = [mutex] {
        return pthread_mutex_trylock(mutex) != 0 || pthread_mutex_unlock(mutex) != 0;
    };
    return std::async(std::launch::async, isTaken).get(); // no matter which thread has it
}

Calls takeCalls()
{
    return std::exchange(fakePam().calls, {});
}

/// A host's own kind of helper. Nobody may find one of which half is gone.
struct Login : PAMHelper {
    Login() : PAMHelper("::ffff:10.0.0.9", nullptr) {}
    ~Login() override
    {
        stopSession();
        for (const auto& [id, helper] : instanceMap)
            EXPECT_NE(helper, this) << id;
        for (const auto& [flag, helper] : instanceFwMap)
            EXPECT_NE(helper, this) << flag;
        setFwInProgress(true);
        setSessionId("of one that is gone");
        ++s_deleted;
    }
    static inline std::atomic<int> s_deleted = 0;
};

struct PAMHelperCallsTest : testing::Test {
    PAMHelperCallsTest() { forgetCalls(); }
    ~PAMHelperCallsTest() override
    {
        m_helper->dispose();
        fakePam() = {};
        EXPECT_TRUE(PAMHelper::instanceMap.empty());
        EXPECT_TRUE(PAMHelper::instanceFwMap.empty());
    }

    void forgetCalls()
    {
        fakePam() = {};
        fakePam().records = true;
        fakePam().onRecord = [this](std::string_view call) {
            const bool closes = call.starts_with("close "), ends = call.starts_with("end ");
            if (!ends) {
                EXPECT_EQ(isMonitorHeld(), !closes) << call;
            }
            if (closes && m_onClose)
                m_onClose();
        };
        m_onClose = nullptr;
    }
    /// Start again, with a helper and a PAM that know nothing.
    void renew()
    {
        m_helper->dispose();
        forgetCalls();
        m_helper = new Login;
    }
    /// Whatever comes of it, the helper forgets the password.
    int authenticate(auto&... arguments)
    {
        const int status = m_helper->authenticate(arguments...);
        EXPECT_EQ(m_helper->m_password, std::string(m_password.size(), '\0'));
        EXPECT_EQ(m_helper->getAuthResult(), status);
        return status;
    }
    int logIn(bool skip = false) { return authenticate(m_service, m_user, m_password, skip); }
    int checkAgain(std::string user, bool skip = false) { return authenticate(user, m_password, skip); }
    void open(const char* sessionId = "S1")
    {
        logIn();
        ASSERT_TRUE(m_helper->startSession());
        m_helper->setSessionId(sessionId);
        takeCalls();
    }

    /// Each such step holds this conversation. Its replies come into m_replies.
    void letPamAsk(const std::vector<pam_message>& messages,
                   std::function<int(pam_handle_t&)> FakePam::*step = &FakePam::onAuthenticate)
    {
        fakePam().*step = [this, messages](const pam_handle_t& pam) {
            std::vector<const pam_message*> pointers;
            pointers.reserve(1); // without messages it is an array all the same
            for (const pam_message& message : messages)
                pointers.push_back(&message);
            pam_response* response = nullptr;
            const auto& [converse, helper] = pam.conversation;
            const int count = static_cast<int>(messages.size());
            const int status = converse(count, pointers.data(), &response, helper);
            for (int i = 0; response != nullptr && i < count; ++i) {
                m_replies.emplace_back(response[i].resp == nullptr ? "-" : response[i].resp);
                std::free(response[i].resp);
            }
            std::free(response);
            return status;
        };
    }

    PAMHelper* m_helper = new Login;
    std::string m_service = "svc", m_user = "alice", m_password = "pass word";
    Calls m_replies;
    std::function<void()> m_onClose;
};

TEST_F(PAMHelperCallsTest, EachFormCallsPamInItsOrder)
{
    std::string token = "t", context = "c", name = "NAME", value = "v", trigger = "OIDC_LOGIN",
                almost = "OIDC_LOGIN2";
    bool skip = false;
    const auto expectVariables = [&](const Calls& variables, auto&... arguments) {
        renew();
        fakePam().statuses["account"] = PAM_PERM_DENIED;
        EXPECT_EQ(authenticate(m_service, m_user, m_password, arguments..., skip), PAM_PERM_DENIED);
        Calls calls = {"1 start svc alice", "1 rhost 10.0.0.9", "1 INTERFACE_IP=", "1 authenticate 0",
                       "1 account 0"};
        calls.insert(calls.begin() + 1, variables.begin(), variables.end());
        EXPECT_EQ(takeCalls(), calls);
    };
    expectVariables({});
    expectVariables({"1 JEXTOKEN=t"}, token);
    expectVariables({"1 NAME=v", "1 CONTEXT_ID=pass word"}, name, value);
    expectVariables({"1 OIDC_LOGIN=v", "1 CONTEXT_ID=c"}, context, trigger, value);
    expectVariables({"1 OIDC_LOGIN2=v"}, context, almost, value);
}

TEST_F(PAMHelperCallsTest, WithoutTransactionPamIsNotCalled)
{
    EXPECT_EQ(m_helper->getAuthResult(), PAM_AUTHINFO_UNAVAIL);
    EXPECT_FALSE(m_helper->isValid());
    EXPECT_FALSE(m_helper->startSession());
    EXPECT_EQ(m_helper->stopSession(), 0);
    EXPECT_EQ(m_helper->setEnv("A", "B"), 0);
    EXPECT_EQ(m_helper->getEnv("A"), nullptr);
    EXPECT_EQ(m_helper->changePassword("a", "b"), PAM_PERM_DENIED);
    EXPECT_EQ(takeCalls(), Calls{});
}

TEST_F(PAMHelperCallsTest, LaterStepsAreLeftOutAfterAFailureOrOnRequest)
{
    const struct {
        decltype(FakePam::statuses) statuses;
        bool skips;
        int result;
        const char* lastCall;
        bool opens = false;
    } cases[] = {
        {{{"start", PAM_ABORT}}, false, PAM_AUTH_ERR, "- rhost 10.0.0.9"},
        {{{"authenticate", PAM_MAXTRIES}}, false, PAM_MAXTRIES, "1 authenticate 0"},
        {{{"authenticate", 1}, {"account", PAM_ACCT_EXPIRED}}, true, PAM_ACCT_EXPIRED, "1 account 0"},
        {{{"account", PAM_NEW_AUTHTOK_REQD}}, false, PAM_NEW_AUTHTOK_REQD, "1 open 0", true},
        {{}, false, PAM_SUCCESS, "1 open 0", true},
        {{{"open", PAM_SESSION_ERR}}, false, PAM_SUCCESS, "1 open 0"},
    };
    for (const auto& [statuses, skips, result, lastCall, opens] : cases) {
        renew();
        fakePam().statuses = statuses;
        EXPECT_EQ(logIn(skips), result);
        EXPECT_EQ(m_helper->startSession(), opens);
        EXPECT_EQ(m_helper->isValid(), opens);
        EXPECT_EQ(m_helper->getAuthResult(), result);
        EXPECT_EQ(takeCalls().back(), lastCall);
    }
}

TEST_F(PAMHelperCallsTest, CheckOfAnotherUserUsesItsOwnTransactionOnly)
{
    const auto expectCheck = [&](const char* user, bool skips, int status, const Calls& calls) {
        EXPECT_EQ(checkAgain(user, skips), status);
        EXPECT_EQ(takeCalls(), calls);
        EXPECT_EQ(m_helper->getUser(), "alice");
    };
    fakePam().statuses["authenticate"] = PAM_SYSTEM_ERR;
    expectCheck("alice", false, PAM_SYSTEM_ERR, {"- authenticate 0"}); // makes the user the helper's own
    expectCheck("alice", true, PAM_SUCCESS, {});
    expectCheck("bob", true, PAM_SUCCESS, {"1 start  bob", "1 rhost 10.0.0.9", "1 INTERFACE_IP=", "1 end 0"});
    m_helper->setInterfaceIP("::ffff:10.0.0.1");
    logIn();
    takeCalls();
    Calls calls = {"3 start svc bob", "3 rhost 10.0.0.9", "3 INTERFACE_IP=10.0.0.1", "3 authenticate 0",
                   "3 end 4"};
    expectCheck("bob", false, PAM_SYSTEM_ERR, calls);
    fakePam().statuses["start"] = PAM_BUF_ERR;
    expectCheck("bob", false, PAM_AUTH_ERR, {"- start svc bob", "- rhost 10.0.0.9", "- end 7"});
    fakePam().statuses.clear();
    fakePam().onAuthenticate = [](const pam_handle_t&) -> int { throw "out"; };
    EXPECT_THROW(checkAgain("bob"), const char*); // as a cancelled thread leaves it
    EXPECT_EQ(m_helper->getUser(), "alice");
    EXPECT_EQ(takeCalls().back(), "4 end 7");
}

TEST_F(PAMHelperCallsTest, PointerIntoTheUsersTextIsRightAfterAnotherUsersCheck)
{
    const std::string shorter = "bob", longer = "a user with a long name", longest = longer + longer;
    for (const std::string& own : {shorter, longer}) {
        for (const std::string& other : {shorter + "by", longer, longest}) {
            renew();
            m_user = own;
            logIn();
            const char* const text = m_helper->getUser().c_str();
            fakePam().onAuthenticate = [&](const pam_handle_t&) {
                EXPECT_EQ(m_helper->getUser(), other);
                return PAM_SUCCESS;
            };
            checkAgain(other);
            EXPECT_EQ(text, own) << other;
            EXPECT_EQ(text, m_helper->getUser().c_str()) << other;
        }
    }
}

TEST_F(PAMHelperCallsTest, CancellationWaitsForADeletion)
{
    auto* const bare = new PAMHelper(nullptr, nullptr); // a derived class has its own cares
    bool skip = false;
    bare->authenticate(m_service, m_user, m_password, skip);
    EXPECT_TRUE(returnsWhenCancelled([&] { delete bare; }));
}

TEST_F(PAMHelperCallsTest, DisposeClosesAndEndsWithTheStatusOfTheClose)
{
    open();
    auto* const other = new Login;
    other->setSessionId("S1");
    fakePam().statuses["close"] = PAM_SESSION_ERR;
    m_helper->dispose();
    EXPECT_EQ(takeCalls(), (Calls{"1 close 0", "1 end 14"}));
    EXPECT_EQ(PAMHelper::instanceForSessionId("S1"), nullptr); // whoever had it
    m_helper = other;
}

TEST_F(PAMHelperCallsTest, RegistriesWaitForTheMonitorThatGuardsThem)
{
    Monitor* const registry = PAMHelper::getMonitor();
    Monitor* const flags = &PAMHelper::instanceFwMapMonitor;
    const std::pair<Monitor*, std::function<void()>> operations[] = {
        {registry, [&] { m_helper->setSessionId("S1"); }},
        {registry, [&] { PAMHelper::instanceForSessionId("S1"); }},
        {registry, [&] { PAMHelper::instanceForKEPId(0); }},
        {registry, [&] { m_helper->setKEPSessionId(1); }},
        {registry, [&] { m_helper->stopSession(); }},
        {flags, [&] { m_helper->setFwInProgress(true); }},
        {flags, [&] { m_helper->setFWSemaphoreLock(true); }},
    };
    logIn();
    for (const auto& [guardedBy, run] : operations) {
        for (Monitor* const held : {registry, flags}) {
            held->fastLock();
            const auto running = std::async(std::launch::async, run);
            const auto limit = std::chrono::milliseconds(held == guardedBy ? 30 : 20000);
            EXPECT_EQ(running.wait_for(limit) == std::future_status::timeout, held == guardedBy);
            held->releaseLock();
        }
    }
}

TEST_F(PAMHelperCallsTest, NobodyFindsADisposedHelperAndNoLateStopTakesItsSuccessorsEntry)
{
    const std::function<void()> waysToClose[] = {[&] { EXPECT_EQ(m_helper->stopSession(), 0); },
                                                 [&] { m_helper->dispose(); }};
    for (const auto& close : waysToClose) {
        open();
        auto* const successor = new Login;
        m_onClose = [&] {
            EXPECT_FALSE(m_helper->isValid());
            EXPECT_EQ(PAMHelper::instanceForSessionId("S1"), m_helper);
            std::thread([&] { m_helper->dispose(); }).join(); // while this thread closes the session
            EXPECT_EQ(PAMHelper::instanceForSessionId("S1"), nullptr);
            successor->setSessionId("S1");
        };
        close();
        EXPECT_EQ(takeCalls().back(), "1 end 0");
        EXPECT_EQ(PAMHelper::instanceForSessionId("S1"), successor);
        m_helper = successor;
        renew();
    }
}

TEST_F(PAMHelperCallsTest, LastOfManyThatDisposeAtOnceDeletes)
{
    for (int round = 0; round < 100; ++round) {
        logIn(); // without a session: the others would hold the monitor at its close
        Login::s_deleted = 0;
        std::vector<std::future<void>> others;
        PAMHelper::getMonitor()->fastLock();
        for (int i = 0; i < 3; ++i)
            others.push_back(std::async(std::launch::async, [this] { m_helper->dispose(); }));
        while (std::atomic_ref<int>(m_helper->m_holds) < 1 + 3) // all of them are in before one goes on
            std::this_thread::yield();
        PAMHelper::getMonitor()->releaseLock();
        others.clear();
        EXPECT_EQ(Login::s_deleted, 1);
        m_helper = new Login;
    }
}

TEST_F(PAMHelperCallsTest, SessionIdTextGivesTheNumericId)
{
    const std::pair<const char*, int> cases[] = {
        {"7", 7},    {"-0X1f", -31}, {"abc", -31}, {"-9223372036854775808", 0}, {"99999999999999999999", -1},
        {nullptr, 0}};
    logIn();
    EXPECT_EQ(m_helper->getEnv(nullptr), nullptr);
    for (const auto& [text, id] : cases) { // on one helper: what is no number changes nothing
        fakePam().sessionId = text;
        ASSERT_TRUE(m_helper->startSession());
        EXPECT_EQ(m_helper->getKEPSessionId(), id) << (text == nullptr ? "absent" : text);
    }
    fakePam().statuses["open"] = PAM_SESSION_ERR;
    EXPECT_FALSE(m_helper->startSession() || m_helper->isValid()); // nor is the one before
    m_helper->setSessionId("S1");
    m_helper->setKEPSessionId(1234);
    EXPECT_EQ(PAMHelper::instanceForKEPId(1234), m_helper);
}

TEST_F(PAMHelperCallsTest, RegistriesMonitorsTakeTheFirstIds)
{
    EXPECT_EQ(PAMHelper::instanceMapMonitor.m_id, 2);
    EXPECT_EQ(PAMHelper::instanceFwMapMonitor.m_id, 3);
}

TEST_F(PAMHelperCallsTest, FirmwareMapNamesWhoSetEachValueLast)
{
    auto *a = new Login, *b = new Login; // no transaction, so nothing is stopped
    a->setFwInProgress(true);
    b->setFWSemaphoreLock(true);
    EXPECT_TRUE(a->isFwInProgress());
    EXPECT_FALSE(a->isFwSemLocked());
    EXPECT_TRUE(b->isFwSemLocked());
    EXPECT_FALSE(b->isFwInProgress());
    a->setFwInProgress(false);
    EXPECT_EQ(PAMHelper::instanceFwMap, (std::map<bool, PAMHelper*>{{false, a}, {true, b}}));
    a->dispose();
    b->dispose();
}

TEST_F(PAMHelperCallsTest, RegistryFollowsAHelperWhoseIdWasChangedBehindItsBack)
{
    auto *a = new Login, *b = new Login;
    a->setSessionId("S1");
    for (int turn = 0; turn < 2; ++turn)
        b->setSessionId("S1");
    a->dispose(); // the entry is the other's
    EXPECT_EQ(PAMHelper::instanceForSessionId("S1"), b);
    b->getSessionId() = "changed";
    b->setSessionId("S2");
    EXPECT_EQ(PAMHelper::instanceForSessionId("S1"), nullptr);
    b->getSessionId() = "";
    b->dispose();
}

TEST_F(PAMHelperCallsTest, AddressesAreReducedToWhatIsMapped)
{
    const std::pair<const char*, const char*> cases[] = {
        {"::ffff:10.20.30.40", "10.20.30.40"},
        {nullptr, "10.20.30.40"},
        {"10.20.30.40", "10.20.30.40"},
        {"fe80::1", "fe80::1"},
        {":10.0.0.1", ":10.0.0.1"},
        {"10.0.0.1:", ""},
        {"10.0.0.1:5000", "5000"},
        {"fe80::1%eth0.100", "1%eth0.100"},
        {"", ""},
    };
    for (const auto& [address, reduced] : cases) {
        m_helper->setRemoteIP(address);
        m_helper->setInterfaceIP(address);
        EXPECT_EQ(m_helper->getRemoteIP(), reduced);
        EXPECT_EQ(m_helper->m_interfaceIP, reduced);
    }
}

TEST_F(PAMHelperCallsTest, ConversationAnswersOnlyPasswordPromptsWhicheverUserIsChecked)
{
    const std::tuple<std::size_t, pam_message, int> cases[] = {
        {0, {PAM_PROMPT_ECHO_OFF, "Password: "}, PAM_CONV_ERR},
        {33, {PAM_PROMPT_ECHO_OFF, "Password: "}, PAM_CONV_ERR},
        {1, {PAM_PROMPT_ECHO_OFF, "Password:"}, PAM_CONV_ERR},
        {1, {PAM_PROMPT_ECHO_OFF, "New Password: "}, PAM_CONV_ERR},
        {1, {PAM_PROMPT_ECHO_OFF, nullptr}, PAM_CONV_ERR},
        {1, {PAM_RADIO_TYPE, "Password: "}, PAM_CONV_ERR},
        {32, {PAM_PROMPT_ECHO_OFF, "New password: again"}, PAM_SUCCESS},
        {1, {PAM_PROMPT_ECHO_OFF, "Password: "}, PAM_SUCCESS},
    };
    for (const auto& [times, message, status] : cases) {
        renew();
        letPamAsk(std::vector<pam_message>(times, message));
        EXPECT_EQ(logIn(), status) << times << message.msg;
    }
    EXPECT_EQ(checkAgain("alice"), PAM_SUCCESS);
    EXPECT_EQ(checkAgain("bob"), PAM_SUCCESS);
    EXPECT_EQ(m_replies, Calls(35, m_password));
    const pam_message asks = {PAM_PROMPT_ECHO_OFF, "Password: "};
    const pam_message* messages = &asks;
    pam_response* replies = nullptr;
    EXPECT_EQ(PAMHelper::converse(1, &messages, &replies, nullptr), PAM_CONV_ERR); // no helper
    EXPECT_EQ(PAMHelper::converse(1, nullptr, &replies, m_helper), PAM_CONV_ERR);
    EXPECT_EQ(PAMHelper::converse(1, &messages, nullptr, m_helper), PAM_CONV_ERR);
}

TEST_F(PAMHelperCallsTest, ChangeAnswersEachPromptWithItsPassword)
{
    const std::pair<const char*, const char*> cases[] = {
        {"Password: ", "old"},
        {"Current password: ", "old"},
        {"(current) UNIX password: ", "old"},
        {"Current Password: ", "old"},
        {"New password: ", "new"},
        {"Retype new Kerberos password: ", "new"},
        {"Reenter new Password: ", "new"},
        {"New password:", nullptr},
        {"New PIN: ", nullptr},
        {nullptr, nullptr},
    };
    for (const auto& [prompt, answer] : cases) {
        renew();
        m_replies.clear();
        fakePam().statuses["account"] = PAM_NEW_AUTHTOK_REQD;
        logIn();
        letPamAsk({{PAM_PROMPT_ECHO_OFF, prompt}}, &FakePam::onChange);
        EXPECT_EQ(m_helper->changePassword("old", "new"), answer == nullptr ? PAM_CONV_ERR : PAM_SUCCESS);
        letPamAsk({{PAM_PROMPT_ECHO_OFF, "New password: "}}); // as ever, outside a change
        EXPECT_EQ(checkAgain("alice"), PAM_SUCCESS);
        EXPECT_EQ(m_replies, answer == nullptr ? Calls{m_password} : (Calls{answer, m_password})) << prompt;
    }
}

TEST_F(PAMHelperCallsTest, PasswordIsChangedOnlyAndOnlyOnceIfItMustBe)
{
    fakePam().statuses["account"] = PAM_NEW_AUTHTOK_REQD;
    open();
    const auto change = [&](int status) {
        fakePam().statuses["change"] = status;
        const int result = m_helper->changePassword("old", "new");
        EXPECT_EQ(m_helper->m_password.find_first_not_of('\0'), std::string::npos);
        return result;
    };
    EXPECT_EQ(change(PAM_AUTHTOK_ERR), PAM_AUTHTOK_ERR);
    EXPECT_EQ(m_helper->getAuthResult(), PAM_NEW_AUTHTOK_REQD);
    EXPECT_EQ(change(PAM_SUCCESS), PAM_SUCCESS);
    EXPECT_EQ(m_helper->getAuthResult(), PAM_SUCCESS);
    EXPECT_EQ(change(PAM_SUCCESS), PAM_PERM_DENIED);
    EXPECT_EQ(takeCalls(), (Calls{"1 change 32", "1 change 32"}));
    EXPECT_TRUE(m_helper->isValid());
}

TEST_F(PAMHelperCallsTest, TextsAreShownAndAPromptWithEchoIsAnsweredFromStandardInput)
{
    const std::string longLine(600, 'x');
    FILE* const terminal = std::exchange(stdin, std::tmpfile());
    std::fputs(("Liddell\n" + longLine).c_str(), stdin);
    std::rewind(stdin);
    CapturedStream output(stdout), errors(stderr);
    letPamAsk({{PAM_TEXT_INFO, "note"}, {PAM_ERROR_MSG, "bad\n"}, {PAM_PROMPT_ECHO_ON, "Name? "}});
    EXPECT_EQ(logIn(), PAM_SUCCESS);
    letPamAsk({{PAM_TEXT_INFO, &"x"[1]}, {PAM_ERROR_MSG, nullptr}, {PAM_PROMPT_ECHO_ON, nullptr}});
    EXPECT_EQ(checkAgain("alice"), PAM_SUCCESS);
    EXPECT_EQ(checkAgain("alice"), PAM_SUCCESS);
    EXPECT_EQ(checkAgain("alice"), PAM_CONV_ERR); // nothing is left to read
    EXPECT_EQ(errors.text(), "bad\nName? ");
    EXPECT_EQ(output.text(), "note\n");
    EXPECT_EQ(m_replies, (Calls{"-", "-", "Liddell\n", "-", "-", longLine.substr(0, 511), "-", "-",
                                longLine.substr(511)}));
    std::fclose(std::exchange(stdin, terminal));
}

TEST_F(PAMHelperCallsTest, NoTemporaryOrDiscardedReplyKeepsThePassword)
{
    if (!ProcessMemory::canBeSearched())
        GTEST_SKIP() << "a sanitizer's own memory is searched in vain";
    const ProcessMemory::Secret secret("another passphrase that no small buffer could ever hold");
    const pam_message asks = {PAM_PROMPT_ECHO_OFF, "Password: "};
    std::string password = secret.text(), name = "NAME", value = "v";
    for (bool skip : {false, true}) { // without replies, nothing covers what a temporary left
        renew();
        fakePam().records = false; // and starts no thread: its stack would hold what registers hold
        letPamAsk({asks, asks, asks, {PAM_PROMPT_ECHO_OFF, "PIN: "}});
        EXPECT_EQ(m_helper->authenticate(m_service, m_user, password, name, value, skip),
                  skip ? PAM_SUCCESS : PAM_CONV_ERR);
    }
    m_helper->m_authResult = PAM_NEW_AUTHTOK_REQD;
    letPamAsk({asks, {PAM_PROMPT_ECHO_OFF, "New password: "}, {PAM_PROMPT_ECHO_OFF, "PIN: "}},
              &FakePam::onChange);
    EXPECT_EQ(m_helper->changePassword(password, password), PAM_CONV_ERR);
    FILE* const terminal = std::exchange(stdin, std::tmpfile());
    std::setvbuf(stdin, nullptr, _IONBF, 0);
    std::fputs(password.c_str(), stdin);
    std::rewind(stdin);
    letPamAsk({{PAM_PROMPT_ECHO_ON, nullptr}, {PAM_PROMPT_ECHO_OFF, "PIN: "}});
    fakePam().onAuthenticate = [ask = fakePam().onAuthenticate](pam_handle_t& pam) {
        [[maybe_unused]] volatile char deep[100'000]; // so that no later call covers what the line left
        const int status = ask(pam);
        deep[0] = '\0';
        return status;
    };
    EXPECT_EQ(logIn(), PAM_CONV_ERR);
    std::fclose(std::exchange(stdin, terminal));
    EXPECT_TRUE(ProcessMemory::holds(secret)); // the caller's own copy
    OPENSSL_cleanse(password.data(), password.size());
    EXPECT_FALSE(ProcessMemory::holds(secret)); // once only: a search leaves copies behind
}

} // namespace
