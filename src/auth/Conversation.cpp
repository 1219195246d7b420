// SPDX-License-Identifier: BSD-3-Clause
#include "auth/Conversation.h"

#include "base/AtExit.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <openssl/crypto.h>
#include <utility>

namespace {

constexpr std::size_t kInputLineSize = 512;

/// The replies of one conversation. Cleansed and freed unless they are released to PAM.
class Replies {
public:
    explicit Replies(int count)
        : m_count(count), m_replies(static_cast<pam_response*>(
                              std::calloc(static_cast<std::size_t>(count), sizeof(pam_response))))
    {}
    ~Replies()
    {
        if (m_replies == nullptr)
            return;
        for (int i = 0; i < m_count; ++i)
            discard(m_replies[i].resp);
        std::free(m_replies);
    }
    Replies(const Replies&) = delete;
    Replies& operator=(const Replies&) = delete;

    bool allocated() const { return m_replies != nullptr; }
    pam_response& at(int index) { return m_replies[index]; }
    pam_response* release() { return std::exchange(m_replies, nullptr); }

private:
    static void discard(char* text)
    {
        if (text == nullptr)
            return;
        OPENSSL_cleanse(text, std::strlen(text));
        std::free(text);
    }

    int m_count;
    pam_response* m_replies;
};

/// Returns null for a prompt that isn't answered.
const char* answerTo(const char* prompt, const Secrets& secrets)
{
    const auto contains = [prompt](const char* text) { return std::strstr(prompt, text) != nullptr; };
    const bool changes = secrets.newPassword != nullptr;
    if (!contains("password: ") &&
        !(changes ? contains("Password: ") : std::strcmp(prompt, "Password: ") == 0))
        return nullptr;
    return changes && (contains("new ") || contains("New ")) ? secrets.newPassword : secrets.password;
}

bool answerFromMemory(const char* prompt, const Secrets& secrets, pam_response& reply)
{
    const char* const answer = prompt == nullptr ? nullptr : answerTo(prompt, secrets);
    if (answer == nullptr)
        return false;
    reply.resp = strdup(answer);
    return reply.resp != nullptr;
}

bool answerFromInput(const char* prompt, pam_response& reply)
{
    if (prompt != nullptr)
        std::fputs(prompt, stderr);
    char line[kInputLineSize];
    const AtExit wipe([&line] { OPENSSL_cleanse(line, sizeof line); });
    if (std::fgets(line, sizeof line, stdin) != nullptr)
        reply.resp = strdup(line);
    return reply.resp != nullptr;
}

bool showText(const char* text, FILE* stream)
{
    if (text == nullptr || *text == '\0')
        return true;
    const bool hasEnd = text[std::strlen(text) - 1] == '\n';
    std::fprintf(stream, "%s%s", text, hasEnd ? "" : "\n"); // at once: another thread may close a session
    return true;
}

/// Returns false when the message fails the conversation.
bool handleMessage(const pam_message& message, const Secrets& secrets, pam_response& reply)
{
    switch (message.msg_style) {
    case PAM_PROMPT_ECHO_OFF:
        return answerFromMemory(message.msg, secrets, reply);
    case PAM_PROMPT_ECHO_ON:
        return answerFromInput(message.msg, reply);
    case PAM_ERROR_MSG:
        return showText(message.msg, stderr);
    case PAM_TEXT_INFO:
        return showText(message.msg, stdout);
    default:
        return false;
    }
}

} // namespace

int holdConversation(int count, const pam_message** messages, pam_response** responses,
                     const Secrets& secrets)
{
    if (count < 1 || count > PAM_MAX_NUM_MSG || messages == nullptr || responses == nullptr)
        return PAM_CONV_ERR;
    Replies replies(count);
    if (!replies.allocated())
        return PAM_BUF_ERR;
    for (int i = 0; i < count; ++i) {
        if (!handleMessage(*messages[i], secrets, replies.at(i)))
            return PAM_CONV_ERR;
    }
    *responses = replies.release();
    return PAM_SUCCESS;
}
