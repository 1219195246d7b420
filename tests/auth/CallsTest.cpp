#include "PAMHelper.h"
#include "support/Files.h"
#include "support/ProcessMemory.h"

#include <cstring>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <malloc.h>
#include <openssl/crypto.h>
#include <vector>

struct pam_handle {
    int number = 0;
    pam_conv conversation{};
};

namespace {

const ProcessMemory::Secret* s_secret = nullptr;

bool isMonitorHeld() {
    pthread_mutex_t* const mutex = &PAMHelper::instanceMapMonitor.m_mutex;
    const auto isTaken = [mutex] { return pthread_mutex_trylock(mutex) != 0 || pthread_mutex_unlock(mutex) != 0; };
    return std::async(std::launch::async, isTaken).get(); // no matter which thread has it
}

/// What the PAM functions below answer and record.
struct FakePam {
    int startStatus = 0, authStatus = 0, accountStatus = 0, openStatus = 0, closeStatus = 0;
    const char* sessionIdText = nullptr;
    std::function<int(const pam_conv&)> onAuthenticate;
    std::function<void(const std::string&)> onStep;
    std::vector<std::string> calls;
    int handles = 0;

    int step(const pam_handle_t* handle, const std::string& call, int status) {
        // A new thread would leave the registers, and with them the secret, on its creator's stack.
        if (s_secret == nullptr && !call.starts_with("end ")) { EXPECT_EQ(isMonitorHeld(), call != "close 0") << call; }
        calls.push_back((handle == nullptr ? "-" : std::to_string(handle->number)) + " " + call);
        if (onStep) onStep(call);
        return status;
    }
};

FakePam s_pam;
bool s_secretWasFreed = false;

} // namespace

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" void __libc_free(void* block);

extern "C" __attribute__((visibility("default"))) void free(void* block) noexcept {
    if (s_secret != nullptr && block != nullptr && s_secret->isIn(block, malloc_usable_size(block)))
        s_secretWasFreed = true;
    __libc_free(block);
}
#endif

#define FAKE extern "C" __attribute__((visibility("default")))

FAKE int pam_start(const char* service, const char* user, const pam_conv* conversation, pam_handle_t** handle) {
    *handle = s_pam.startStatus == PAM_SUCCESS ? new pam_handle{++s_pam.handles, *conversation} : nullptr;
    return s_pam.step(*handle, std::string("start ") + service + " " + user, s_pam.startStatus);
}

FAKE int pam_end(pam_handle_t* handle, int status) {
    s_pam.step(handle, "end " + std::to_string(status), 0);
    delete handle;
    return PAM_SUCCESS;
}

FAKE int pam_set_item(pam_handle_t* handle, int item, const void* value) {
    return s_pam.step(handle, (item == PAM_RHOST ? "rhost " : "? ") + std::string(static_cast<const char*>(value)),
                      PAM_SYSTEM_ERR); // not looked at
}

FAKE int pam_putenv(pam_handle_t* handle, const char* text) {
    const bool isSecret = s_secret != nullptr && s_secret->isIn(text, std::strlen(text));
    return s_pam.step(handle, isSecret ? "secret" : text, PAM_BUF_ERR); // not looked at
}

FAKE const char* pam_getenv(pam_handle_t*, const char* name) {
    return std::string_view(name) == "SESSION_ID" ? s_pam.sessionIdText : nullptr;
}

FAKE int pam_authenticate(pam_handle_t* handle, int flags) {
    s_pam.step(handle, "authenticate " + std::to_string(flags), 0);
    return s_pam.onAuthenticate ? s_pam.onAuthenticate(handle->conversation) : s_pam.authStatus;
}

FAKE int pam_acct_mgmt(pam_handle_t* handle, int flags) {
    return s_pam.step(handle, "account " + std::to_string(flags), s_pam.accountStatus);
}

FAKE int pam_open_session(pam_handle_t* handle, int flags) {
    return s_pam.step(handle, "open " + std::to_string(flags), s_pam.openStatus);
}

FAKE int pam_close_session(pam_handle_t* handle, int flags) {
    return s_pam.step(handle, "close " + std::to_string(flags), s_pam.closeStatus);
}

namespace {

using Calls = std::vector<std::string>;
using Message = pam_message;

struct PamCallsTest : testing::Test {
    PamCallsTest() { s_pam = {}; }
    ~PamCallsTest() override {
        s_pam.onStep = nullptr;
        m_helper->dispose();
    }

    void renew() {
        m_helper->dispose();
        m_helper = new PAMHelper("::ffff:10.0.0.9", nullptr);
    }
    int logIn(bool skip = false) { return m_helper->authenticate(m_service, m_user, m_password, skip); }
    int checkAgain(std::string user, bool skip = false) { return m_helper->authenticate(user, m_password, skip); }
    static Calls takeCalls() { return std::exchange(s_pam.calls, {}); }

    /// Hold a conversation. Returns its status and, on success, the replies ("-" for none).
    static int converse(const pam_conv& conversation, const std::vector<Message>& messages,
                        std::vector<std::string>* replies = nullptr) {
        std::vector<const pam_message*> pointers;
        for (const Message& message : messages) pointers.push_back(&message);
        pam_response* const untouched = reinterpret_cast<pam_response*>(&pointers);
        pam_response* response = untouched;
        const int status =
            conversation.conv(static_cast<int>(messages.size()), pointers.data(), &response, conversation.appdata_ptr);
        if (status != PAM_SUCCESS) {
            EXPECT_EQ(response, untouched);
            return status;
        }
        for (std::size_t i = 0; i < messages.size(); ++i) {
            EXPECT_EQ(response[i].resp_retcode, 0);
            if (replies != nullptr) replies->emplace_back(response[i].resp == nullptr ? "-" : response[i].resp);
            std::free(response[i].resp);
        }
        std::free(response);
        return status;
    }

    PAMHelper* m_helper = new PAMHelper("::ffff:10.0.0.9", nullptr);
    std::string m_service = "svc", m_user = "alice", m_password = "pass word";
};

TEST_F(PamCallsTest, EachFormCallsPamInItsOrder) {
    std::string token = "t", context = "c", name = "NAME", value = "v", trigger = "OIDC_LOGIN", almost = "OIDC_LOGIN2";
    bool skip = false;
    const auto with = [&](auto&... more) {
        return [&] { return m_helper->authenticate(m_service, m_user, m_password, more..., skip); };
    };
    const std::pair<std::function<int()>, Calls> forms[] = {
        {with(), {}},
        {with(token), {"JEXTOKEN=t"}},
        {with(name, value), {"NAME=v", "CONTEXT_ID=pass word"}},
        {with(context, trigger, value), {"OIDC_LOGIN=v", "CONTEXT_ID=c"}},
        {with(context, almost, value), {"OIDC_LOGIN2=v"}},
    };
    s_pam.accountStatus = PAM_PERM_DENIED;
    for (const auto& [authenticate, variables] : forms) {
        renew();
        s_pam.handles = 0;
        takeCalls();
        EXPECT_EQ(authenticate(), PAM_PERM_DENIED);
        Calls expected = {"1 start svc alice"};
        for (const std::string& variable : variables) expected.push_back("1 " + variable);
        for (const char* call : {"1 rhost 10.0.0.9", "1 INTERFACE_IP=", "1 authenticate 0", "1 account 0"})
            expected.emplace_back(call);
        EXPECT_EQ(takeCalls(), expected);
    }
}

TEST_F(PamCallsTest, LaterStepsAreLeftOutAfterAFailureOrOnRequest) {
    s_pam.startStatus = PAM_ABORT;
    EXPECT_EQ(logIn(), PAM_AUTH_ERR);
    EXPECT_EQ(m_helper->getAuthResult(), PAM_AUTH_ERR);
    EXPECT_EQ(takeCalls(), (Calls{"- start svc alice", "- rhost 10.0.0.9"}));
    s_pam.startStatus = PAM_SUCCESS;
    EXPECT_EQ(logIn(true), PAM_SUCCESS);
    EXPECT_EQ(takeCalls().back(), "1 account 0");
    renew();
    s_pam.authStatus = PAM_MAXTRIES;
    takeCalls();
    EXPECT_EQ(logIn(), PAM_MAXTRIES);
    EXPECT_EQ(takeCalls().back(), "2 authenticate 0");
}

TEST_F(PamCallsTest, CheckOfAnotherUserUsesItsOwnTransactionOnly) {
    s_pam.authStatus = PAM_SYSTEM_ERR;
    EXPECT_EQ(checkAgain("alice"), PAM_SYSTEM_ERR); // the first check makes the user the helper's own
    EXPECT_EQ(takeCalls(), Calls{"- authenticate 0"});
    EXPECT_EQ(checkAgain("alice", true), PAM_SUCCESS);
    EXPECT_EQ(takeCalls(), Calls{});
    EXPECT_EQ(checkAgain("bob", true), PAM_SUCCESS);
    EXPECT_EQ(takeCalls().front(), "1 start  bob");
    s_pam.handles = 0;
    m_helper->setInterfaceIP("::ffff:10.0.0.1");
    logIn();
    takeCalls();
    s_pam.authStatus = PAM_AUTH_ERR;
    EXPECT_EQ(checkAgain("bob"), PAM_AUTH_ERR);
    EXPECT_EQ(takeCalls(),
              (Calls{"2 start svc bob", "2 rhost 10.0.0.9", "2 INTERFACE_IP=10.0.0.1", "2 authenticate 0", "2 end 7"}));
    EXPECT_EQ(checkAgain("bob", true), PAM_SUCCESS);
    EXPECT_EQ(takeCalls().back(), "3 end 0");
    s_pam.startStatus = PAM_BUF_ERR;
    EXPECT_EQ(checkAgain("bob"), PAM_AUTH_ERR);
    EXPECT_EQ(takeCalls(), (Calls{"- start svc bob", "- rhost 10.0.0.9", "- end 7"}));
    EXPECT_EQ(m_helper->getAuthResult(), PAM_AUTH_ERR);
    EXPECT_EQ(checkAgain("alice", true), PAM_SUCCESS);
    EXPECT_EQ(takeCalls(), Calls{});
    s_pam.startStatus = PAM_SUCCESS;
    std::vector<std::string> replies;
    s_pam.onAuthenticate = [&](const pam_conv& conversation) {
        return converse(conversation, {{PAM_PROMPT_ECHO_OFF, "Password: "}}, &replies);
    };
    for (const char* user : {"alice", "bob"}) EXPECT_EQ(checkAgain(user), PAM_SUCCESS);
    EXPECT_EQ(replies, (std::vector<std::string>{m_password, m_password}));
}

TEST_F(PamCallsTest, DisposeClosesAndEndsWithTheStatusOfTheClose) {
    logIn();
    ASSERT_TRUE(m_helper->startSession());
    m_helper->setSessionId("S1");
    s_pam.closeStatus = PAM_SESSION_ERR;
    takeCalls();
    EXPECT_EQ(m_helper->stopSession(), 0);
    EXPECT_EQ(m_helper->getAuthResult(), PAM_SESSION_ERR);
    EXPECT_EQ(PAMHelper::instanceForSessionId("S1"), nullptr);
    EXPECT_FALSE(m_helper->startSession());
    m_helper->dispose();
    EXPECT_EQ(takeCalls(), (Calls{"1 close 0", "1 end 14"}));
    m_helper = new PAMHelper(nullptr, nullptr);
    EXPECT_EQ(m_helper->stopSession() + m_helper->setEnv("A", "B"), 0); // no transaction, no call
    EXPECT_EQ(m_helper->getEnv("A"), nullptr);
    EXPECT_EQ(takeCalls(), Calls{});
}

TEST_F(PamCallsTest, RegistriesWaitForTheMonitorThatGuardsThem) {
    Monitor* const registry = PAMHelper::getMonitor();
    Monitor* const flags = &PAMHelper::instanceFwMapMonitor;
    const std::pair<Monitor*, std::function<void()>> operations[] = {
        {registry, [&] { m_helper->setSessionId("S1"); }},   {registry, [&] { PAMHelper::instanceForSessionId("S1"); }},
        {registry, [&] { PAMHelper::instanceForKEPId(0); }}, {registry, [&] { m_helper->stopSession(); }},
        {flags, [&] { m_helper->setFwInProgress(true); }},   {flags, [&] { m_helper->setFWSemaphoreLock(true); }},
    };
    logIn();
    for (const auto& [guardedBy, run] : operations) {
        Monitor* const other = guardedBy == registry ? flags : registry;
        other->fastLock();
        std::async(std::launch::async, run).get(); // must not wait
        other->releaseLock();
        guardedBy->fastLock();
        const auto waiting = std::async(std::launch::async, run);
        EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(30)), std::future_status::timeout);
        guardedBy->releaseLock();
    }
}

TEST_F(PamCallsTest, HelperOutlivesTheCallsThatOthersAreStillIn) {
    for (int round = 0; round < 200; ++round) {
        logIn(true);
        m_helper->startSession();
        takeCalls();
        s_pam.onStep = [&](const std::string& call) {
            if (call != "close 0") return;
            s_pam.onStep = nullptr;
            EXPECT_FALSE(m_helper->isValid());
            std::thread([this] { m_helper->dispose(); }).join(); // while this thread closes the session
        };
        PAMHelper* const helper = m_helper;
        helper->stopSession();
        const Calls calls = takeCalls();
        EXPECT_EQ(calls.size(), 2U); // one close, one end
        EXPECT_TRUE(calls.back().ends_with(" end 0"));
        m_helper = new PAMHelper(nullptr, nullptr);
        std::vector<std::thread> threads;
        PAMHelper::getMonitor()->fastLock(); // all of them are in dispose before one goes on
        std::atomic<int> begun = 0;
        for (int i = 0; i < 3; ++i)
            threads.emplace_back([&] {
                ++begun;
                m_helper->dispose();
            });
        while (begun < 3) std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        PAMHelper::getMonitor()->releaseLock();
        for (auto& thread : threads) thread.join();
        m_helper = new PAMHelper(nullptr, nullptr);
    }
}

TEST_F(PamCallsTest, SessionOpensAfterSuccessAndWhenANewPasswordIsDue) {
    EXPECT_EQ(m_helper->getAuthResult(), PAM_AUTHINFO_UNAVAIL);
    EXPECT_FALSE(m_helper->startSession());
    for (const int status : {PAM_SUCCESS, PAM_ACCT_EXPIRED, PAM_NEW_AUTHTOK_REQD, PAM_AUTH_ERR}) {
        s_pam.accountStatus = status;
        EXPECT_EQ(logIn(), status);
        EXPECT_EQ(m_helper->getAuthResult(), status);
        const bool opens = status == PAM_SUCCESS || status == PAM_NEW_AUTHTOK_REQD;
        EXPECT_EQ(m_helper->startSession(), opens);
        EXPECT_EQ(m_helper->isValid(), opens);
        renew();
    }
}

TEST_F(PamCallsTest, SessionIdTextGivesTheNumericId) {
    const std::pair<const char*, int> cases[] = {{"7", 7},          {"0x1F", 31},
                                                 {"017", 15},       {"42abc", 42},
                                                 {"abc", 42},       {"-1", -1},
                                                 {"", -1},          {"0b101", 5},
                                                 {" \t+9", 9},      {"- 5", 9},
                                                 {"4294967297", 1}, {nullptr, 0},
                                                 {"-0X1f", -31},    {"99999999999999999999", -1}};
    logIn();
    for (const auto& [text, id] : cases) { // one after another on one helper: what is no number changes nothing
        s_pam.sessionIdText = text;
        ASSERT_TRUE(m_helper->startSession());
        EXPECT_EQ(m_helper->getKEPSessionId(), id) << (text == nullptr ? "absent" : text);
    }
    s_pam.openStatus = PAM_SESSION_ERR;
    EXPECT_FALSE(m_helper->startSession());
    EXPECT_FALSE(m_helper->isValid());
    EXPECT_EQ(m_helper->getAuthResult(), PAM_SUCCESS);
}

TEST_F(PamCallsTest, AddressInMappedFormIsReduced) {
    const std::pair<const char*, const char*> cases[] = {{"::ffff:10.20.30.40", "10.20.30.40"},
                                                         {nullptr, "10.20.30.40"},
                                                         {"10.20.30.40", "10.20.30.40"},
                                                         {"fe80::1", "fe80::1"},
                                                         {":10.0.0.1", ":10.0.0.1"},
                                                         {"10.0.0.1:", ""},
                                                         {"a.b:c", "c"},
                                                         {"", ""}};
    for (const auto& [given, kept] : cases) {
        m_helper->setRemoteIP(given);
        EXPECT_EQ(m_helper->getRemoteIP(), kept);
    }
}

TEST_F(PamCallsTest, ConversationAnswersOnlyPasswordPrompts) {
    const struct {
        std::vector<Message> messages;
        std::vector<std::string> replies; // none: the conversation fails
        std::string output = {}, errors = {};
    } cases[] = {
        {{{PAM_PROMPT_ECHO_OFF, "Password: "}}, {"pass word"}},
        {{{PAM_PROMPT_ECHO_OFF, "New password: again"}}, {"pass word"}},
        {{{PAM_PROMPT_ECHO_OFF, "Password:"}}, {}},
        {{{PAM_PROMPT_ECHO_OFF, "New Password: "}}, {}},
        {{{PAM_PROMPT_ECHO_OFF, nullptr}}, {}},
        {{{PAM_ERROR_MSG, "bad"}, {PAM_ERROR_MSG, "worse\n"}, {PAM_ERROR_MSG, ""}},
         {"-", "-", "-"},
         "",
         "bad\nworse\n"},
        {{{PAM_TEXT_INFO, "note"}, {PAM_TEXT_INFO, nullptr}, {PAM_PROMPT_ECHO_OFF, "Password: "}},
         {"-", "-", "pass word"},
         "note\n"},
        {{{PAM_TEXT_INFO, "shown"}, {99, "odd"}, {PAM_TEXT_INFO, "not shown"}}, {}, "shown\n"},
        {{}, {}},
        {std::vector<Message>(33, {PAM_PROMPT_ECHO_OFF, "Password: "}), {}},
        {std::vector<Message>(32, {PAM_PROMPT_ECHO_OFF, "Password: "}), std::vector<std::string>(32, "pass word")},
    };
    for (const auto& test : cases) {
        CapturedStream output(stdout);
        CapturedStream errors(stderr);
        std::vector<std::string> replies;
        s_pam.onAuthenticate = [&](const pam_conv& talk) { return converse(talk, test.messages, &replies); };
        const int status = logIn();
        EXPECT_EQ(errors.text(), test.errors);
        EXPECT_EQ(output.text(), test.output);
        EXPECT_EQ(status, test.replies.empty() ? PAM_CONV_ERR : PAM_SUCCESS);
        EXPECT_EQ(replies, test.replies);
        renew();
    }
}

TEST_F(PamCallsTest, PromptWithEchoIsAnsweredFromStandardInputUntilItEnds) {
    FILE* input = std::tmpfile();
    std::fputs(("Liddell\n" + std::string(600, 'x') + "\nlast").c_str(), input);
    std::rewind(input);
    FILE* const saved = std::exchange(stdin, input);
    CapturedStream errors(stderr);
    std::vector<std::string> replies;
    s_pam.onAuthenticate = [&](const pam_conv& conversation) {
        const std::vector<Message> ask(4, {PAM_PROMPT_ECHO_ON, "Name? "});
        EXPECT_EQ(converse(conversation, ask, &replies), PAM_SUCCESS);
        return converse(conversation, ask, &replies); // nothing left to read
    };
    EXPECT_EQ(logIn(), PAM_CONV_ERR);
    EXPECT_EQ(errors.text(), "Name? Name? Name? Name? Name? ");
    stdin = saved;
    std::fclose(input);
    EXPECT_EQ(replies,
              (std::vector<std::string>{"Liddell\n", std::string(511, 'x'), std::string(89, 'x') + "\n", "last"}));
}

TEST_F(PamCallsTest, PasswordIsForgottenOnEveryPath) {
    std::string text = "any";
    bool skip = false;
    const std::pair<const char*, std::function<void()>> paths[] = {
        {"start fails", [&] { s_pam.startStatus = PAM_ABORT, logIn(); }},
        {"check fails", [&] { s_pam.startStatus = PAM_SUCCESS, s_pam.authStatus = PAM_AUTH_ERR, logIn(); }},
        {"account fails", [&] { s_pam.authStatus = PAM_SUCCESS, s_pam.accountStatus = PAM_ACCT_EXPIRED, logIn(); }},
        {"token", [&] { m_helper->authenticate(m_service, m_user, m_password, text, skip); }},
        {"variable", [&] { m_helper->authenticate(m_service, m_user, m_password, text, text, skip); }},
        {"context", [&] { m_helper->authenticate(m_service, m_user, m_password, text, text, text, skip); }},
        {"own user", [&] { checkAgain("alice"); }},
        {"skipped", [&] { checkAgain("alice", true); }},
        {"another user", [&] { logIn(), checkAgain("bob"); }},
    };
    for (const auto& [path, run] : paths) {
        renew();
        run();
        EXPECT_EQ(m_helper->m_password, std::string(m_password.size(), '\0')) << path;
    }
}

TEST_F(PamCallsTest, NoTemporaryOrDiscardedReplyKeepsThePassword) {
    if (!ProcessMemory::canBeSearched()) GTEST_SKIP() << "a sanitizer's own memory is searched in vain";
    const ProcessMemory::Secret secret("another passphrase that no small buffer could ever hold");
    std::string password = secret.text();
    std::string name = "NAME", value = "v";
    bool skip = false;
    s_pam.onAuthenticate = [&](const pam_conv& conversation) {
        const Message asks = {PAM_PROMPT_ECHO_OFF, "Password: "};
        return converse(conversation, {asks, asks, {PAM_PROMPT_ECHO_OFF, "PIN: "}});
    };
    s_secret = &secret;
    EXPECT_EQ(m_helper->authenticate(m_service, m_user, password, name, value, skip), PAM_CONV_ERR);
    m_helper->dispose();
    s_secret = nullptr;
    m_helper = new PAMHelper(nullptr, nullptr);
    EXPECT_FALSE(s_secretWasFreed);
    EXPECT_TRUE(ProcessMemory::holds(secret)); // the caller's own copy
    OPENSSL_cleanse(password.data(), password.size());
    EXPECT_FALSE(ProcessMemory::holds(secret));
}

} // namespace
