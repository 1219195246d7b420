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

// In place of the admission, the configuration service and the programs: answers that follow from the
// question alone.

void Admission::enter(int, const std::string&)
{}

void Admission::leave(int)
{}

Admission::Turn Admission::beginLogin(int, const std::string& user)
{
    return {user.size() % 8 != 7, Clock::now()};
}

void Admission::endLogin(int, bool)
{}

Configuration::Configuration(AComponentLog& parent) : m_parent(parent), m_client("fuzz", 1)
{}

Configuration::~Configuration() = default;

std::optional<std::string> Configuration::get(const std::string& name)
{
    return name.size() % 2 == 0 ? std::optional("is " + name) : std::nullopt;
}

bool Configuration::set(const std::string& name, const std::string& value)
{
    return name.size() > value.size();
}

bool Configuration::raise(std::string event, std::string data)
{
    return event > data;
}

std::optional<std::string> Configuration::call(const std::string& function, std::string argument)
{
    return get(function + argument);
}

Programs::Programs(std::vector<Program>, int limitSeconds) : m_limitSeconds(limitSeconds)
{}

Programs::Outcome Programs::run(std::string_view name, std::size_t limit, const std::function<bool()>&,
                                std::string& output)
{
    output.assign(std::min(limit, name.size() * 100), 'o');
    return static_cast<Outcome>(name.size() % 4);
}

namespace {

using Fields = std::vector<std::string>;

struct Answer {
    short result;
    bool goesOn = true;
};

/// What the session must answer, read from the client's bytes with no regard to speed.
class Model {
public:
    explicit Model(std::string_view bytes) : m_bytes(bytes) {}

    /// Nothing when the client has left in the middle of a request.
    std::optional<Answer> next()
    {
        const auto operation = takeNumber(2);
        const auto length = operation ? takeNumber(4) : std::nullopt;
        if (!length)
            return std::nullopt;
        if (*length > protocol::kMaxBytes)
            return Answer{protocol::TooLarge, false};
        if (*length > m_bytes.size())
            return std::nullopt;
        const std::string_view body = m_bytes.substr(0, *length);
        m_bytes.remove_prefix(*length);
        return serve(static_cast<short>(*operation), body);
    }

private:
    std::optional<std::uint32_t> takeNumber(std::size_t size) { return takeNumber(m_bytes, size); }
    static std::optional<std::uint32_t> takeNumber(std::string_view& bytes, std::size_t size)
    {
        if (bytes.size() < size)
            return std::nullopt;
        std::uint32_t number = 0;
        for (std::size_t i = 0; i < size; ++i)
            number = number * 256 + static_cast<unsigned char>(bytes[i]);
        bytes.remove_prefix(size);
        return number;
    }

    static std::optional<Fields> split(std::string_view body)
    {
        Fields fields;
        while (!body.empty()) {
            const auto length = takeNumber(body, 4);
            if (!length || *length > body.size())
                return std::nullopt;
            fields.emplace_back(body.substr(0, *length));
            body.remove_prefix(*length);
        }
        return fields;
    }

    static bool hasUglyField(const Fields& fields)
    {
        if (!fields.empty() && fields[0].size() > 255)
            return true;
        for (std::size_t i = 0; i < fields.size(); ++i) {
            for (const char c : fields[i]) {
                const bool isControl = static_cast<unsigned char>(c) < 32 || c == 127;
                if (c == '\0' || (i == 0 && isControl))
                    return true;
            }
        }
        return false;
    }

    Answer serve(short operation, std::string_view body)
    {
        static const std::size_t s_counts[] = {2, 0, 1, 2, 2, 2, 1, 0};
        if (operation < protocol::Login || operation > protocol::Logout)
            return {protocol::UnknownOperation};
        const auto fields = split(body);
        if (!fields || fields->size() != s_counts[operation - 1] || hasUglyField(*fields))
            return {protocol::BadRequest};
        if (operation == protocol::Login)
            return logIn(*fields);
        if (!m_loggedIn)
            return {protocol::NotLoggedIn};
        return perform(operation, *fields);
    }

    Answer logIn(const Fields& fields)
    {
        if (m_loggedIn)
            return {protocol::BadRequest};
        if (fields[0].size() % 8 == 7)
            return {protocol::Busy, ++m_refusals < 3};
        m_loggedIn = fields[0] == fields[1];
        if (m_loggedIn)
            return {protocol::Done};
        return {protocol::Refused, ++m_refusals < 3};
    }

    static Answer perform(short operation, const Fields& fields)
    {
        static const short s_outcomes[] = {protocol::Done, protocol::Refused, protocol::Busy,
                                           protocol::Failed};
        const auto doneOr = [](bool done, short otherwise) { return Answer{done ? short{0} : otherwise}; };
        switch (operation) {
        case protocol::Get:
            return doneOr(fields[0].size() % 2 == 0, protocol::NotFound);
        case protocol::Set:
            return doneOr(fields[0].size() > fields[1].size(), protocol::Failed);
        case protocol::Event:
            return doneOr(fields[0] > fields[1], protocol::Failed);
        case protocol::Call:
            return doneOr((fields[0].size() + fields[1].size()) % 2 == 0, protocol::Failed);
        case protocol::Run:
            return {s_outcomes[fields[0].size() % 4]};
        default:
            return {protocol::Done, operation != protocol::Logout};
        }
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

short takeShort(std::string_view bytes)
{
    return static_cast<short>(static_cast<unsigned char>(bytes[0]) << 8 |
                              static_cast<unsigned char>(bytes[1]));
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
        MUST(takeShort(sent) == expected->result);
        MUST(takeShort(sent.substr(2)) == 0);
        const auto length = static_cast<std::size_t>(takeShort(sent.substr(4)));
        sent.remove_prefix(protocol::kHeaderSize);
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
    ALog log{"fuzz", fuzz::streamInto(nullptr)};
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
