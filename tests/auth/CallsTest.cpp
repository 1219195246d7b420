#include "PAMHelper.h"
#include "support/Files.h"
#include "support/ProcessMemory.h"

#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <map>
#include <openssl/crypto.h>
#include <vector>

struct pam_handle : pam_conv {
    int number = 0;
};

namespace {

bool isMonitorHeld()
{
    pthread_mutex_t* const mutex = &PAMHelper::instanceMapMonitor.m_mutex;
    const auto isTaken = [mutex] {
        return pthread_mutex_trylock(mutex) != 0 || pthread_mutex_unlock(mutex) != 0;
    };
    return std::async(std::launch::async, isTaken).get(); // no matter which thread has it
}

/// What the PAM functions below answer and record.
struct FakePam {
    std::map<std::string, int> statuses; // by the first word of a call, success for others
    const char* sessionIdText = nullptr;
    std::function<int(const pam_conv&)> onAuthenticate;
    std::function<void()> onClose;
    bool keepsNothing =
        false; // of the arguments, and starts no thread: its stack would hold what registers hold
    std::vector<std::string> calls;
    int handles = 0;

    int step(const pam_handle_t* pam, std::string_view call)
    {
        if (keepsNothing)
            return PAM_SUCCESS;
        if (!call.starts_with("end ")) {
            EXPECT_EQ(isMonitorHeld(), call != "close 0") << call;
        }
        calls.push_back((pam == nullptr ? "-" : std::to_string(pam->number)).append(" ").append(call));
        return statuses[std::string(call.substr(0, call.find(' ')))];
    }
};

FakePam s_pam;

} // namespace

#define FAKE extern "C" __attribute__((visibility("default")))

FAKE int pam_start(const char* service, const char* user, const pam_conv* conversation, pam_handle_t** pam)
{
    *pam = s_pam.statuses["start"] == PAM_SUCCESS ? new pam_handle{*conversation, ++s_pam.handles} : nullptr;
    return s_pam.step(*pam, std::string("start ") + service + " " + user);
}

FAKE int pam_end(pam_handle_t* pam, int status)
{
    s_pam.step(pam, "end " + std::to_string(status));
    delete pam;
    return PAM_SUCCESS;
}

FAKE int pam_set_item(pam_handle_t* pam, int item, const void* value)
{
    s_pam.step(pam, (item == PAM_RHOST ? "rhost " : "? ") + std::string(static_cast<const char*>(value)));
    return PAM_SYSTEM_ERR; // not looked at
}

FAKE int pam_putenv(pam_handle_t* pam, const char* text)
{
    s_pam.step(pam, text);
    return PAM_BUF_ERR; // not looked at
}

FAKE const char* pam_getenv(pam_handle_t*, const char* name)
{
    return std::string_view(name) == "SESSION_ID" ? s_pam.sessionIdText : nullptr;
}

FAKE int pam_authenticate(pam_handle_t* pam, int flags)
{
    const int status = s_pam.step(pam, "authenticate " + std::to_string(flags));
    return s_pam.onAuthenticate ? s_pam.onAuthenticate(*pam) : status;
}

FAKE int pam_acct_mgmt(pam_handle_t* pam, int flags)
{
    return s_pam.step(pam, "account " + std::to_string(flags));
}

FAKE int pam_open_session(pam_handle_t* pam, int flags)
{
    return s_pam.step(pam, "open " + std::to_string(flags));
}

FAKE int pam_close_session(pam_handle_t* pam, int flags)
{
    const int status = s_pam.step(pam, "close " + std::to_string(flags));
    if (s_pam.onClose)
        s_pam.onClose();
    return status;
}

namespace {

using Calls = std::vector<std::string>;

struct PamCallsTest : testing::Test {
    PamCallsTest() { s_pam = {}; }
    ~PamCallsTest() override { m_helper->dispose(); }

    /// Start again, with a helper and a PAM that know nothing.
    void renew()
    {
        m_helper->dispose();
        s_pam = {};
        m_helper = new PAMHelper("::ffff:10.0.0.9", nullptr);
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
    static Calls takeCalls() { return std::exchange(s_pam.calls, {}); }

    /// Each authentication holds this conversation. Its replies come into m_replies.
    void letPamAsk(const std::vector<pam_message>& messages)
    {
        s_pam.onAuthenticate = [this, messages](const pam_conv& conversation) {
            std::vector<const pam_message*> pointers;
            for (const pam_message& message : messages)
                pointers.push_back(&message);
            pam_response* response = nullptr;
            const int count = static_cast<int>(messages.size());
            const int status = conversation.conv(count, pointers.data(), &response, conversation.appdata_ptr);
            for (int i = 0; response != nullptr && i < count; ++i) {
                m_replies.emplace_back(response[i].resp == nullptr ? "-" : response[i].resp);
                std::free(response[i].resp);
            }
            std::free(response);
            return status;
        };
    }

    PAMHelper* m_helper = new PAMHelper("::ffff:10.0.0.9", nullptr);
    std::string m_service = "svc", m_user = "alice", m_password = "pass word";
    std::vector<std::string> m_replies;
};

TEST_F(PamCallsTest, EachFormCallsPamInItsOrder)
{
    std::string token = "t", context = "c", name = "NAME", value = "v", trigger = "OIDC_LOGIN",
                almost = "OIDC_LOGIN2";
    bool skip = false;
    const auto expectVariables = [&](const Calls& variables, auto&... arguments) {
        renew();
        s_pam.statuses["account"] = PAM_PERM_DENIED;
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

TEST_F(PamCallsTest, LaterStepsAreLeftOutAfterAFailureOrOnRequest)
{
    EXPECT_EQ(m_helper->getAuthResult(), PAM_AUTHINFO_UNAVAIL);
    EXPECT_FALSE(m_helper->startSession());
    EXPECT_EQ(m_helper->stopSession() + m_helper->setEnv("A", "B"), 0);
    EXPECT_EQ(m_helper->getEnv("A"), nullptr);
    EXPECT_EQ(takeCalls(), Calls{}); // no transaction, no call
    const struct {
        decltype(FakePam::statuses) statuses;
        bool skips;
        int result;
        const char* lastCall;
        bool opens = false;
    } cases[] = {
        {{{"start", PAM_ABORT}}, false, PAM_AUTH_ERR, "- rhost 10.0.0.9"},
        {{{"authenticate", PAM_MAXTRIES}}, false, PAM_MAXTRIES, "1 authenticate 0"},
        {{{"authenticate", PAM_MAXTRIES}, {"account", PAM_ACCT_EXPIRED}},
         true,
         PAM_ACCT_EXPIRED,
         "1 account 0"},
        {{{"account", PAM_NEW_AUTHTOK_REQD}}, false, PAM_NEW_AUTHTOK_REQD, "1 open 0", true},
        {{}, false, PAM_SUCCESS, "1 open 0", true},
        {{{"open", PAM_SESSION_ERR}}, false, PAM_SUCCESS, "1 open 0"},
    };
    for (const auto& [statuses, skips, result, lastCall, opens] : cases) {
        renew();
        s_pam.statuses = statuses;
        EXPECT_EQ(logIn(skips), result);
        EXPECT_EQ(m_helper->startSession(), opens);
        EXPECT_EQ(m_helper->isValid(), opens);
        EXPECT_EQ(m_helper->getAuthResult(), result);
        EXPECT_EQ(takeCalls().back(), lastCall);
    }
}

TEST_F(PamCallsTest, CheckOfAnotherUserUsesItsOwnTransactionOnly)
{
    const auto expectCheck = [&](const char* user, bool skips, int status, const Calls& calls) {
        EXPECT_EQ(checkAgain(user, skips), status);
        EXPECT_EQ(takeCalls(), calls);
    };
    s_pam.statuses["authenticate"] = PAM_SYSTEM_ERR;
    expectCheck("alice", false, PAM_SYSTEM_ERR, {"- authenticate 0"}); // makes the user the helper's own
    expectCheck("alice", true, PAM_SUCCESS, {});
    expectCheck("bob", true, PAM_SUCCESS, {"1 start  bob", "1 rhost 10.0.0.9", "1 INTERFACE_IP=", "1 end 0"});
    m_helper->setInterfaceIP("::ffff:10.0.0.1");
    logIn();
    takeCalls();
    expectCheck(
        "bob", false, PAM_SYSTEM_ERR,
        {"3 start svc bob", "3 rhost 10.0.0.9", "3 INTERFACE_IP=10.0.0.1", "3 authenticate 0", "3 end 4"});
    s_pam.statuses["start"] = PAM_BUF_ERR;
    expectCheck("bob", false, PAM_AUTH_ERR, {"- start svc bob", "- rhost 10.0.0.9", "- end 7"});
    expectCheck("alice", true, PAM_SUCCESS, {});
    s_pam.statuses = {};
    letPamAsk({{PAM_PROMPT_ECHO_OFF, "Password: "}});
    for (const char* user : {"alice", "bob"})
        EXPECT_EQ(checkAgain(user), PAM_SUCCESS);
    EXPECT_EQ(m_replies, Calls(2, m_password));
}

TEST_F(PamCallsTest, DisposeClosesAndEndsWithTheStatusOfTheClose)
{
    logIn();
    ASSERT_TRUE(m_helper->startSession());
    s_pam.statuses["close"] = PAM_SESSION_ERR;
    takeCalls();
    m_helper->dispose();
    EXPECT_EQ(takeCalls(), (Calls{"1 close 0", "1 end 14"}));
    m_helper = new PAMHelper(nullptr, nullptr);
}

TEST_F(PamCallsTest, RegistriesWaitForTheMonitorThatGuardsThem)
{
    Monitor* const registry = PAMHelper::getMonitor();
    Monitor* const flags = &PAMHelper::instanceFwMapMonitor;
    const std::pair<Monitor*, std::function<void()>> operations[] = {
        {registry, [&] { m_helper->setSessionId("S1"); }},
        {registry, [&] { PAMHelper::instanceForSessionId("S1"); }},
        {registry, [&] { PAMHelper::instanceForKEPId(0); }},
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

TEST_F(PamCallsTest, HelperOutlivesTheCallsThatOthersAreStillIn)
{
    for (int round = 0; round < 200; ++round) {
        renew();
        logIn();
        m_helper->startSession();
        s_pam.onClose = [&] {
            EXPECT_FALSE(m_helper->isValid());
            std::thread([&] { m_helper->dispose(); }).join(); // while this thread closes the session
        };
        takeCalls();
        EXPECT_EQ(m_helper->stopSession(), 0);
        EXPECT_EQ(takeCalls(), (Calls{"1 close 0", "1 end 0"}));
        m_helper = new PAMHelper(nullptr, nullptr);
        std::atomic<int> begun = 0;
        std::vector<std::future<void>> others;
        PAMHelper::getMonitor()->fastLock(); // all of them are in dispose before one goes on
        for (int i = 0; i < 3; ++i)
            others.push_back(std::async(std::launch::async, [&] {
                ++begun;
                m_helper->dispose();
            }));
        while (begun < 3)
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        PAMHelper::getMonitor()->releaseLock();
        others.clear();
        m_helper = new PAMHelper(nullptr, nullptr);
    }
}

TEST_F(PamCallsTest, SessionIdTextGivesTheNumericId)
{
    const std::pair<const char*, int> cases[] = {{"7", 7}, {"-0X1f", -31}, {"abc", -31}, {nullptr, 0}};
    logIn();
    for (const auto& [text, id] :
         cases) { // one after another on one helper: what is no number changes nothing
        s_pam.sessionIdText = text;
        ASSERT_TRUE(m_helper->startSession());
        EXPECT_EQ(m_helper->getKEPSessionId(), id) << (text == nullptr ? "absent" : text);
    }
    s_pam.statuses["open"] = PAM_SESSION_ERR;
    EXPECT_FALSE(m_helper->startSession() || m_helper->isValid());
}

TEST_F(PamCallsTest, ConversationAnswersOnlyPasswordPrompts)
{
    const auto logInAsked = [&](std::size_t times, const char* prompt) {
        renew();
        letPamAsk(std::vector<pam_message>(times, {PAM_PROMPT_ECHO_OFF, prompt}));
        return logIn();
    };
    for (const auto& [times, prompt] :
         {std::pair{0, "Password: "}, {33, "Password: "}, {1, "Password:"}, {1, "New Password: "}})
        EXPECT_EQ(logInAsked(times, prompt), PAM_CONV_ERR);
    EXPECT_EQ(logInAsked(32, "New password: again"), PAM_SUCCESS);
    EXPECT_EQ(m_replies, Calls(32, m_password));
}

TEST_F(PamCallsTest, TextsAreShownAndAPromptWithEchoIsAnsweredFromStandardInput)
{
    FILE* const terminal = std::exchange(stdin, std::tmpfile());
    std::fputs("Liddell\n", stdin);
    std::rewind(stdin);
    CapturedStream output(stdout), errors(stderr);
    letPamAsk({{PAM_TEXT_INFO, "note"}, {PAM_ERROR_MSG, "bad\n"}, {PAM_PROMPT_ECHO_ON, "Name? "}});
    EXPECT_EQ(logIn(), PAM_SUCCESS);
    EXPECT_EQ(checkAgain("alice"), PAM_CONV_ERR); // nothing is left to read
    EXPECT_EQ(errors.text(), "bad\nName? bad\nName? ");
    EXPECT_EQ(output.text(), "note\nnote\n");
    EXPECT_EQ(m_replies, (Calls{"-", "-", "Liddell\n"}));
    std::fclose(std::exchange(stdin, terminal));
}

TEST_F(PamCallsTest, NoTemporaryOrDiscardedReplyKeepsThePassword)
{
    if (!ProcessMemory::canBeSearched())
        GTEST_SKIP() << "a sanitizer's own memory is searched in vain";
    const ProcessMemory::Secret secret("another passphrase that no small buffer could ever hold");
    const pam_message asks = {PAM_PROMPT_ECHO_OFF, "Password: "};
    std::string password = secret.text(), name = "NAME", value = "v";
    for (bool skip : {false, true}) { // without replies, nothing covers what a temporary left
        renew();
        s_pam.keepsNothing = true;
        letPamAsk({asks, asks, asks, {PAM_PROMPT_ECHO_OFF, "PIN: "}});
        EXPECT_EQ(m_helper->authenticate(m_service, m_user, password, name, value, skip) == PAM_SUCCESS,
                  skip);
    }
    EXPECT_TRUE(ProcessMemory::holds(secret)); // the caller's own copy
    OPENSSL_cleanse(password.data(), password.size());
    EXPECT_FALSE(ProcessMemory::holds(secret)); // once only: a search leaves copies behind
}

} // namespace
