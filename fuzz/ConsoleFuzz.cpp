// SPDX-License-Identifier: BSD-3-Clause
// The console daemon's session against a client that sends anything. A naive reading of the same bytes tells
// the answers that the client must get.

#include "ALog.h"
#include "Fuzz.h"
#include "Session.h"
#include "Wire.h"
#include "support/FakePam.h"

#include <algorithm>
#include <cstring>
#include <unistd.h>

// In place of the admission, the configuration service and the programs.

void Admission::enter(int, const std::string&)
{}

void Admission::leave(int)
{}

Admission::Turn Admission::beginLogin(int, const std::string& user)
{
    return {user.size() % 8 != 7,
            Clock::now() - limits::kRefusalTime + std::chrono::milliseconds(1)}; // a refusal has waited
}

Allowance* Admission::endLogin(int, Outcome outcome, int)
{
    static std::optional<Allowance> s_allowance;
    return outcome == Outcome::Admitted ? &s_allowance.emplace() : nullptr;
}

Configuration::Configuration(AComponentLog& parent) : m_parent(parent), m_client("fuzz", 1)
{}

Configuration::~Configuration() = default;

std::optional<std::string> Configuration::get(const std::string& name)
{
    return name;
}

Configuration::Written Configuration::set(const std::string& name, const std::string&, Allowance&)
{
    return static_cast<Written>(name.size() % 3);
}

bool Configuration::raise(std::string, std::string)
{
    return false;
}

std::optional<std::string> Configuration::call(const std::string&, std::string)
{
    return std::nullopt;
}

Programs::Programs(std::vector<Program>, int limitSeconds) : m_limitSeconds(limitSeconds)
{}

Programs::Outcome Programs::run(std::string_view name, std::size_t limit, int, std::string& output)
{
    output.assign(std::min(limit, name.size() * 100), 'o');
    return Outcome::Finished;
}

namespace {

constexpr short kPerformed = -1; // whatever came of it

struct Answer {
    short result;
    bool goesOn = true;
};

short takeShort(std::string_view& bytes)
{
    const auto high = static_cast<unsigned char>(bytes[0]), low = static_cast<unsigned char>(bytes[1]);
    bytes.remove_prefix(2);
    return static_cast<short>(high << 8 | low);
}

std::uint32_t takeLength(std::string_view& bytes)
{
    const auto high = static_cast<std::uint16_t>(takeShort(bytes));
    return static_cast<std::uint32_t>(high) << 16 | static_cast<std::uint16_t>(takeShort(bytes));
}

/// What the session must answer, read from the client's bytes with no regard to speed.
class Model {
public:
    explicit Model(std::string_view bytes) : m_bytes(bytes) {}

    /// Nothing when the client has left in the middle of a request.
    std::optional<Answer> next()
    {
        if (m_bytes.size() < protocol::kHeaderSize)
            return std::nullopt;
        const short operation = takeShort(m_bytes);
        const std::uint32_t length = takeLength(m_bytes);
        if (length > protocol::kMaxBytes)
            return Answer{protocol::TooLarge, false};
        if (length > m_bytes.size())
            return std::nullopt;
        const std::string_view body = m_bytes.substr(0, length);
        m_bytes.remove_prefix(length);
        return serve(operation, body);
    }

private:
    using Fields = std::vector<std::string_view>;

    static bool isSane(const Fields& fields)
    {
        for (std::size_t i = 0; i < fields.size(); ++i) {
            for (const char c : fields[i]) {
                const bool isControl = static_cast<unsigned char>(c) < 32 || c == 127;
                if (c == '\0' || (i == 0 && isControl))
                    return false;
            }
        }
        return fields.empty() || fields[0].size() <= 255;
    }

    Answer serve(short operation, std::string_view body)
    {
        const auto count = protocol::fieldCount(operation);
        if (!count)
            return {protocol::UnknownOperation};
        Fields fields;
        while (body.size() >= 4) {
            const std::uint32_t length = takeLength(body);
            if (length > body.size())
                return {protocol::BadRequest};
            fields.push_back(body.substr(0, length));
            body.remove_prefix(length);
        }
        if (!body.empty() || fields.size() != *count || !isSane(fields))
            return {protocol::BadRequest};
        if (operation == protocol::Login)
            return logIn(fields[0], fields[1]);
        if (!m_loggedIn)
            return {protocol::NotLoggedIn};
        return {kPerformed, operation != protocol::Logout};
    }

    Answer logIn(std::string_view user, std::string_view password)
    {
        if (m_loggedIn)
            return {protocol::BadRequest};
        if (user.size() % 8 == 7)
            return {protocol::Busy, ++m_refusals < 3};
        m_loggedIn = user == password;
        if (m_loggedIn)
            return {protocol::Done};
        return {protocol::Refused, ++m_refusals < 3};
    }

    std::string_view m_bytes;
    bool m_loggedIn = false;
    int m_refusals = 0;
};

/// The user's name is the password.
int authenticate(pam_handle_t& handle)
{
    const pam_message prompt{PAM_PROMPT_ECHO_OFF, "Password: "};
    const pam_message* messages = &prompt;
    pam_response* reply = nullptr;
    if (handle.conversation.conv(1, &messages, &reply, handle.conversation.appdata_ptr) != PAM_SUCCESS)
        return PAM_CONV_ERR;
    const bool right = handle.user == reply->resp;
    std::free(reply->resp);
    std::free(reply);
    return right ? PAM_SUCCESS : PAM_AUTH_ERR;
}

bool isOutcome(short result)
{
    return result == protocol::Done || result == protocol::Failed || result == protocol::Refused;
}

/// Compare the frames that the client got with the model, up to where a failing system cut them off.
void checkAnswers(std::string_view sent, Model model, bool isReliable)
{
    for (bool goesOn = true; goesOn;) {
        const std::optional<Answer> expected = model.next();
        if (!expected || (!isReliable && sent.size() < protocol::kHeaderSize)) {
            MUST(!isReliable || sent.empty());
            return;
        }
        MUST(sent.size() >= protocol::kHeaderSize);
        const short result = takeShort(sent);
        MUST(expected->result == kPerformed ? isOutcome(result) : result == expected->result);
        const std::uint32_t length = takeLength(sent);
        MUST(length <= protocol::kMaxBytes);
        if (!isReliable && sent.size() < length)
            return;
        MUST(length <= sent.size());
        sent.remove_prefix(length);
        goesOn = expected->goesOn;
    }
    MUST(sent.empty());
}

struct Daemon {
    ALog log{"fuzz", stdout};
    AComponentLog sessions{"session", log};
    Configuration configuration{sessions};
    Admission admission{sessions};
    Programs programs{{}, 1};
    Services services{"any", 10, sessions, admission, configuration, programs, [] {}, [] {}};
};

} // namespace

FUZZ_SETUP
{
    fuzz::silence();
    fakePam().onAuthenticate = authenticate;
    fakePam().sessionId = "0x7";
    return 0;
}

FUZZ_TARGET
{
    static Daemon s_daemon;
    FuzzedDataProvider input(data, size);
    const std::string script = input.ConsumeBool() ? "" : input.ConsumeBytesAsString(20);
    const std::string bytes = input.ConsumeRemainingBytesAsString();
    fuzz::Wire wire(bytes, true, script);
    {
        Session session(Descriptor(wire.nearEnd()), sockaddr_in{}, s_daemon.services);
        session.run();
    }
    checkAnswers(wire.sent(), Model(bytes), script.empty());
    MUST(PAMHelper::instanceMap.empty());
    return 0;
}
