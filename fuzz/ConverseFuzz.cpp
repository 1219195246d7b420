// Conversations with any messages, counts and input, held inside an authentication and after it, against a
// model of replies and output.

#include "Fuzz.h"
#include "PAMHelper.h"
#include "support/FakePam.h"

#include <optional>
#include <stdio_ext.h>

namespace {

std::string s_output;
std::string s_errors;
std::string_view s_input;

struct Message {
    int style = 0;
    std::optional<std::string> text;
};

using Reply = std::optional<std::string>;

std::optional<std::string> nextText(FuzzedDataProvider& input)
{
    switch (input.ConsumeIntegralInRange(0, 7)) {
    case 0:
        return std::nullopt;
    case 1:
        return "Password: ";
    case 2:
        return input.ConsumeRandomLengthString(8) + "password: " + input.ConsumeRandomLengthString(8);
    default:
        return input.ConsumeRandomLengthString(40);
    }
}

std::vector<Message> nextMessages(FuzzedDataProvider& input)
{
    std::vector<Message> messages(input.ConsumeIntegralInRange<std::size_t>(0, PAM_MAX_NUM_MSG + 3));
    for (Message& message : messages) {
        const int style = input.ConsumeIntegralInRange(0, 255);
        message.style = style < 250 ? 1 + style % 4 : input.ConsumeIntegral<int>();
        message.text = nextText(input);
        if (message.text) // what PAM hands over ends at its first zero byte
            message.text = message.text->c_str();
    }
    return messages;
}

/// The line that the standard input of the model holds next, at most 511 bytes of it, up to a zero byte.
Reply takeLine(std::string_view& input)
{
    if (input.empty())
        return std::nullopt;
    const std::size_t end = std::min({input.find('\n') == input.npos ? input.size() : input.find('\n') + 1,
                                      input.size(), std::size_t{511}});
    const std::string line(input.substr(0, end));
    input.remove_prefix(end);
    return line.c_str();
}

void show(std::string& stream, const std::optional<std::string>& text)
{
    if (text && !text->empty())
        stream += *text + (text->back() == '\n' ? "" : "\n");
}

/// What a conversation has to answer and to write. Nothing when it fails.
std::optional<std::vector<Reply>> expectedReplies(const std::vector<Message>& messages, const Reply& password,
                                                  std::string_view& input, std::string& output,
                                                  std::string& errors)
{
    std::vector<Reply> replies;
    for (const auto& [style, text] : messages) {
        Reply reply;
        if (style == PAM_PROMPT_ECHO_OFF) {
            const bool asks =
                text && (*text == "Password: " || text->find("password: ") != std::string::npos);
            if (!asks || !password)
                return std::nullopt;
            reply = password;
        } else if (style == PAM_PROMPT_ECHO_ON) {
            errors += text.value_or("");
            reply = takeLine(input);
            if (!reply)
                return std::nullopt;
        } else if (style == PAM_ERROR_MSG || style == PAM_TEXT_INFO) {
            show(style == PAM_ERROR_MSG ? errors : output, text);
        } else {
            return std::nullopt;
        }
        replies.push_back(reply);
    }
    return replies;
}

void converse(const std::vector<Message>& messages, void* helper, const Reply& password)
{
    std::vector<pam_message> records;
    for (const auto& [style, text] : messages)
        records.push_back({style, text ? text->c_str() : nullptr});
    std::vector<const pam_message*> pointers;
    for (const pam_message& record : records)
        pointers.push_back(&record);

    std::string output;
    std::string errors;
    std::string_view input = s_input;
    const bool fits = !messages.empty() && messages.size() <= PAM_MAX_NUM_MSG;
    const auto expected = fits ? expectedReplies(messages, password, input, output, errors) : std::nullopt;

    s_output.clear();
    s_errors.clear();
    pam_response untouched{};
    pam_response* replies = &untouched;
    const int status =
        PAMHelper::converse(static_cast<int>(messages.size()), pointers.data(), &replies, helper);
    std::fflush(stdout);
    std::fflush(stderr);
    MUST(s_output == output && s_errors == errors);
    MUST(status == (expected ? PAM_SUCCESS : PAM_CONV_ERR));
    if (!expected) {
        MUST(replies == &untouched);
        return;
    }
    for (std::size_t i = 0; i < messages.size(); ++i) {
        char* const text = replies[i].resp;
        MUST(replies[i].resp_retcode == 0);
        MUST((text == nullptr ? Reply() : Reply(text)) == (*expected)[i]);
        std::free(text);
    }
    std::free(replies);
}

} // namespace

FUZZ_SETUP
{
    stdout = fuzz::streamInto(&s_output);
    stderr = fuzz::streamInto(&s_errors);
    stdin = fuzz::streamFrom(&s_input);
    std::setvbuf(stdin, nullptr, _IONBF, 0); // the model looks at what is left
    return 0;
}

FUZZ_TARGET
{
    FuzzedDataProvider input(data, size);
    std::string service = "any";
    std::string user = "user";
    std::string password = input.ConsumeRandomLengthString(32);
    const std::string typed = input.ConsumeRandomLengthString(600);
    s_input = typed;
    std::clearerr(stdin);
    const std::vector<Message> messages = nextMessages(input);

    auto* const helper = new PAMHelper(nullptr, nullptr);
    fakePam().onAuthenticate = [&](pam_handle_t& handle) {
        MUST(handle.conversation.conv == &PAMHelper::converse);
        converse(messages, handle.conversation.appdata_ptr, password.c_str());
        return PAM_AUTH_ERR;
    };
    bool skip = false;
    MUST(helper->authenticate(service, user, password, skip) == PAM_AUTH_ERR);
    converse(messages, helper, ""); // the password is wiped
    converse(messages, nullptr, std::nullopt);
    helper->dispose();
    return 0;
}
