// SPDX-License-Identifier: BSD-3-Clause
#include "Session.h"

#include "ATrace.h"
#include "AUtil.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

namespace {

constexpr std::size_t kMaxLine = 640; // two names, and what is said about them
constexpr int kSpareDescriptors = 8;  // what a PAM step may need
constexpr std::size_t kMaxName = 255;

std::string textOf(const sockaddr_in& address)
{
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return text;
}

std::string interfaceOf(int descriptor)
{
    sockaddr_in address{};
    socklen_t size = sizeof address;
    if (::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) != 0)
        return {};
    return textOf(address);
}

bool isControl(char c)
{
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

/// Names reach the log and C interfaces, so they are short and hold no control character; other fields hold
/// no zero byte. Passwords are no names.
bool areSane(short operation, const std::vector<std::string_view>& fields)
{
    return std::none_of(fields.begin(), fields.end(),
                        [](std::string_view field) { return field.find('\0') != std::string_view::npos; }) &&
           (fields.empty() || operation == protocol::ChangePassword ||
            (fields[0].size() <= kMaxName && std::none_of(fields[0].begin(), fields[0].end(), isControl)));
}

/// Without descriptors modules fail as if the password were wrong.
bool areDescriptorsLeft(int any)
{
    std::array<Descriptor, kSpareDescriptors> spare;
    for (Descriptor& descriptor : spare)
        descriptor.reset(::fcntl(any, F_DUPFD_CLOEXEC, 0));
    return spare.back().isOpen();
}

/// Those that the log tells of.
bool isDeed(short operation)
{
    return (operation >= protocol::Set && operation <= protocol::Run) ||
           operation == protocol::ChangePassword;
}

/// Wipes what may have held a password at the end of the scope.
class WipeAtExit {
public:
    WipeAtExit(void* bytes, std::size_t size) : m_bytes(bytes), m_size(size) {}
    ~WipeAtExit() { explicit_bzero(m_bytes, m_size); }
    WipeAtExit(const WipeAtExit&) = delete;
    WipeAtExit& operator=(const WipeAtExit&) = delete;

private:
    void* m_bytes;
    std::size_t m_size;
};

} // namespace

Session::Session(Descriptor descriptor, sockaddr_in peer, Services& services)
    : m_services(services), m_socket(descriptor.release(), peer), m_remote(textOf(peer)),
      m_interface(interfaceOf(m_socket.getDescriptor())),
      m_label(m_remote + ":" + std::to_string(ntohs(peer.sin_port))),
      m_log(m_label.c_str(), *services.log.getBaseLog())
{
    m_services.admission.enter(m_socket.getDescriptor(), m_remote);
}

Session::~Session()
{
    m_services.admission.leave(m_socket.getDescriptor());
}

void Session::run()
{
    expectClient();
    try {
        while (!isStopRequested() && serveRequest()) {
        }
    } catch (const std::exception& failure) { // out of memory, say: the end of this connection only
        print("failed: %s", failure.what());
    }
    if (m_login != nullptr)
        print("connection of %s ended, state %d", protocol::quoted(m_login->getUser()).c_str(),
              m_socket.getSocketState());
    m_login.reset(); // a client that vanished leaves no session behind
    hangUp();
    m_finished = true;
    m_services.sessionEnded();
}

void Session::hangUp()
{
    m_socket.shutDown(); // it is closed when the session is destroyed: until then its number stays taken
}

bool Session::isOverdue() const
{
    return Clock::now() > m_deadline.load();
}

bool Session::isOver() const
{
    return m_finished;
}

/// From now on the client has as long as it may idle: to send a whole request, or to take an answer. Before
/// it has logged in, no request gives it more time.
void Session::expectClient()
{
    const int idle = m_services.idleSeconds;
    m_deadline = m_login != nullptr
                     ? Clock::now() + std::chrono::seconds(idle)
                     : m_connected + std::chrono::seconds(std::min(idle, limits::kStrangerSeconds));
}

/// Returns whether the connection goes on.
bool Session::serveRequest()
{
    expectClient();
    const std::optional<Answer> answer = receiveAndServe();
    if (!answer)
        return false;
    expectClient();
    const std::string frame = protocol::frame(answer->result, answer->text);
    if (!wait(0, {}))
        return false;
    m_socket.write(reinterpret_cast<const unsigned char*>(frame.data()), static_cast<int>(frame.size()));
    return answer->goesOn && m_socket.getSocketState() == ASocket::CONNECTED;
}

/// Returns nothing when no request arrived. What a request held is wiped before it is answered.
std::optional<Session::Answer> Session::receiveAndServe()
{
    const auto timeout = static_cast<unsigned int>(m_services.idleSeconds);
    short operation = 0;
    int length = 0;
    if (!wait(POLLIN, Clock::now() + std::chrono::seconds(timeout)) ||
        m_socket.readShort(operation, timeout) != 2 || m_socket.readInt(length, timeout) != 4)
        return std::nullopt;
    if (static_cast<unsigned int>(length) > protocol::kMaxBytes)
        return Answer{protocol::TooLarge,
                      "a request has at most " + std::to_string(protocol::kMaxBytes) + " bytes", false};
    const WipeAtExit wipe(m_bytes.data(), static_cast<std::size_t>(length));
    if (length > 0 && m_socket.readFully(m_bytes.data(), 0, length, timeout) != length)
        return std::nullopt;
    m_deadline = Clock::time_point::max(); // the client owes nothing while it is served
    return serve(operation,
                 {reinterpret_cast<const char*>(m_bytes.data()), static_cast<std::size_t>(length)});
}

Session::Answer Session::serve(short operation, std::string_view bytes)
{
    const auto count = protocol::fieldCount(operation);
    if (!count)
        return {protocol::UnknownOperation, "no such operation"};
    const auto fields = protocol::splitFields(bytes, *count);
    if (!fields || !areSane(operation, *fields))
        return {protocol::BadRequest, "the request's fields don't fit its operation"};
    if (operation != protocol::Login && m_login == nullptr)
        return {protocol::NotLoggedIn, "log in first"};
    if (m_login != nullptr && m_login->getAuthResult() == PAM_NEW_AUTHTOK_REQD &&
        operation != protocol::Who && operation != protocol::Logout && operation != protocol::ChangePassword)
        return {protocol::Refused, "the password must be changed first"};
    return dispatch(operation, *fields);
}

Session::Answer Session::dispatch(short operation, const Fields& fields)
{
    if (isDeed(operation) && !wait(0, m_allowance->takeDeed()))
        return {protocol::Failed, "the connection has ended", false};
    if (gTrace != nullptr && isDeed(operation))
        gTrace->TraceLog(3, "%s: operation %d\n", m_label.c_str(), operation);
    switch (operation) {
    case protocol::Login:
        return logIn(fields[0], fields[1]);
    case protocol::Who:
        return who();
    case protocol::Get:
        return get(fields[0]);
    case protocol::Set:
        return print("sets", fields[0], set(fields[0], fields[1]));
    case protocol::Event:
        return print("raises", fields[0], raise(fields[0], fields[1]));
    case protocol::Call:
        return print("calls", fields[0], call(fields[0], fields[1]));
    case protocol::Run:
        return print("runs", fields[0], run(fields[0]));
    case protocol::ChangePassword:
        return print("changes", "password", changePassword(fields[0], fields[1]));
    default:
        return logOut();
    }
}

Session::Answer Session::logIn(std::string_view user, std::string_view password)
{
    if (m_login != nullptr)
        return {protocol::BadRequest, "logged in already"};
    const std::string name(user);
    const auto turn = m_services.admission.beginLogin(m_socket.getDescriptor(), name);
    if (!wait(0, turn.time))
        return {protocol::Failed, "the connection has ended", false};
    if (!turn.isGranted)
        return {protocol::Busy, "no room for another login", ++m_refusals < limits::kRefusals};
    Login login(new PAMHelper(m_remote.c_str(), m_interface.c_str()));
    const Admission::Outcome outcome = check(*login, name, password);
    m_allowance = m_services.admission.endLogin(m_socket.getDescriptor(), outcome, login->getKEPSessionId());
    if (outcome != Admission::Outcome::Admitted)
        return refuse(turn.time, outcome);
    if (m_allowance == nullptr)
        return {protocol::Busy, "no room for another session of yours", ++m_refusals < limits::kRefusals};
    m_login = std::move(login);
    print("%s logged in, session %d", protocol::quoted(name).c_str(), m_login->getKEPSessionId());
    if (m_login->getAuthResult() == PAM_NEW_AUTHTOK_REQD)
        return {protocol::Done, "logged in; the password must be changed"};
    return {protocol::Done, "logged in"};
}

Admission::Outcome Session::check(PAMHelper& login, std::string name, std::string_view password)
{
    std::string service = m_services.pamService;
    std::string secret(password);
    const WipeAtExit wipe(secret.data(), secret.size());
    bool skipAuth = false;
    MonitorLock queue = PAMHelper::getMonitor()->acquireLock(); // logins wait here while another is slow
    if (isStopRequested() || !areDescriptorsLeft(m_socket.getDescriptor()))
        return Admission::Outcome::Unknown;
    login.authenticate(service, name, secret, skipAuth);
    queue.releaseLock();
    if (!login.startSession())
        return areDescriptorsLeft(m_socket.getDescriptor()) ? Admission::Outcome::Refused
                                                            : Admission::Outcome::Unknown;
    login.setSessionId(AUtil::generateRandomKey());
    static std::atomic<int> s_lastSession = 0;
    if (login.getKEPSessionId() == 0) // no module has numbered it
        login.setKEPSessionId(++s_lastSession);
    return Admission::Outcome::Admitted;
}

/// Nothing tells whether there is such a user, not even the time that the modules took.
Session::Answer Session::refuse(Clock::time_point turn, Admission::Outcome outcome)
{
    const auto taken = (Clock::now() - turn) / limits::kRefusalTime; // more than none while others are slow
    if (!wait(0, turn + (taken + 1) * limits::kRefusalTime))
        return {protocol::Failed, "the connection has ended", false};
    const bool goesOn = ++m_refusals < limits::kRefusals;
    if (outcome == Admission::Outcome::Unknown)
        return {protocol::Busy, "no login is possible at present", goesOn};
    return {protocol::Refused, "login refused", goesOn};
}

/// Wait till then, or only for these events. Returns whether the connection is as it was: the socket
/// complains on standard error about one that was reset, and strangers can reset many.
bool Session::wait(short events, Clock::time_point end)
{
    pollfd connection = {m_socket.getDescriptor(), events, 0};
    int count = 0;
    do {
        const auto rest = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        count = ::poll(&connection, 1, static_cast<int>(std::max<std::int64_t>(rest.count(), 0)));
    } while (count < 0 && errno == EINTR);
    return count >= 0 && (connection.revents & (POLLERR | POLLHUP)) == 0;
}

Session::Answer Session::who()
{
    return {protocol::Done, m_login->getUser() + " from " + m_login->getRemoteIP() + ", session " +
                                std::to_string(m_login->getKEPSessionId())};
}

Session::Answer Session::get(std::string_view name)
{
    auto value = m_services.configuration.get(std::string(name));
    if (!value)
        return {protocol::NotFound, "no such property"};
    if (value->size() > protocol::kMaxBytes)
        return {protocol::Failed, "the value is too long to be shown"};
    return {protocol::Done, std::move(*value)};
}

Session::Answer Session::set(std::string_view name, std::string_view value)
{
    switch (m_services.configuration.set(std::string(name), std::string(value), *m_allowance)) {
    case Configuration::Written::Done:
        return {protocol::Done, "set"};
    case Configuration::Written::NoRoom:
        return {protocol::Refused, "no room for another property"};
    default:
        return {protocol::Failed, "the property could not be set"};
    }
}

Session::Answer Session::raise(std::string_view event, std::string_view data)
{
    if (!m_services.configuration.raise(std::string(event), std::string(data)))
        return {protocol::Failed, "the event could not be raised"};
    return {protocol::Done, "raised"};
}

Session::Answer Session::call(std::string_view function, std::string_view argument)
{
    auto reply = m_services.configuration.call(std::string(function), std::string(argument));
    if (!reply)
        return {protocol::Failed, "the call failed"};
    return {protocol::Done, std::move(*reply)};
}

Session::Answer Session::run(std::string_view program)
{
    std::string output;
    const auto outcome =
        m_services.programs.run(program, protocol::kMaxBytes, m_socket.getDescriptor(), output);
    static const Answer s_answers[] = {{protocol::Done, ""},
                                       {protocol::Refused, "not one of the programs that may run"},
                                       {protocol::Busy, "another program is running"},
                                       {protocol::Failed, "the program failed"}};
    Answer answer = s_answers[static_cast<int>(outcome)];
    if (outcome == Programs::Outcome::Finished)
        answer.text = std::move(output);
    return answer;
}

Session::Answer Session::changePassword(std::string_view current, std::string_view next)
{
    std::string from(current), to(next);
    const WipeAtExit wipe(from.data(), from.size()), wipeToo(to.data(), to.size());
    if (m_login->getAuthResult() != PAM_NEW_AUTHTOK_REQD)
        return {protocol::Refused, "the password need not be changed"};
    if (!areDescriptorsLeft(m_socket.getDescriptor()))
        return {protocol::Busy, "no change is possible at present"};
    if (m_login->changePassword(from, to) != PAM_SUCCESS)
        return {protocol::Refused, "the password was not changed"};
    return {protocol::Done, "changed"};
}

Session::Answer Session::logOut()
{
    print("%s logs out", protocol::quoted(m_login->getUser()).c_str());
    m_login.reset();
    return {protocol::Done, "logged out", false};
}

/// What the user does to the machine.
Session::Answer Session::print(const char* verb, std::string_view name, Answer answer)
{
    print("%s %s %s: %s", protocol::quoted(m_login->getUser()).c_str(), verb, protocol::quoted(name).c_str(),
          answer.result == protocol::Done ? "done" : answer.text.c_str());
    return answer;
}

/// One line of this connection, in the log and in the trace.
void Session::print(const char* format, ...)
{
    char text[kMaxLine];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    m_log.print(" %s: %s\n", m_label.c_str(), text);
    m_log.flush();
    if (gTrace != nullptr)
        gTrace->TraceLog(1, "%s: %s\n", m_label.c_str(), text);
}
