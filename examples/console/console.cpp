// SPDX-License-Identifier: BSD-3-Clause
// Talks to consoled, interactively or from a script.
//
//   console -port N [-host H] [-user NAME] [-c 'COMMAND; COMMAND ...']
//
// With -user it logs in first. The password is asked for on a terminal and is the first line of standard
// input otherwise. Exit status: 0, 1 when a command was refused or failed, 2 wrong usage, 3 no connection.

#include "Client.h"
#include "CommandLine.h"
#include "GorvSocketException.h"
#include "HiddenInput.h"
#include "Protocol.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <optional>
#include <unistd.h>

namespace {

constexpr const char* kHelp =
    "login USER           log in; asks for the password\n"
    "who                  show this session\n"
    "get NAME             read a property\n"
    "set NAME VALUE       write a property\n"
    "event NAME [DATA]    raise an event\n"
    "call NAME [ARGUMENT] call a remote function\n"
    "run PROGRAM          run date, disk, id or system\n"
    "passwd               change a password that must be changed; asks for both\n"
    "logout               log out and leave\n"
    "quit                 leave\n"
    "Words are separated by blanks; a value is the rest of the line, as it stands. After\n"
    "-c, a semicolon ends a command.\n";

constexpr std::size_t kMaxLine = 4096;

enum ExitStatus : int { Success = 0, CommandFailed = 1, WrongUsage = 2, NoConnection = 3 };

bool isInteractive()
{
    return ::isatty(STDIN_FILENO) == 1;
}

enum class Line { Read, TooLong, End };

/// Reads one line without its end, in full or not at all.
Line readLine(std::string& line)
{
    line.clear();
    line.reserve(kMaxLine); // it may be a password: no copy is left in a smaller buffer
    bool tooLong = false;
    int c = std::getchar();
    if (c == EOF)
        return Line::End;
    for (; c != EOF && c != '\n'; c = std::getchar()) {
        tooLong = tooLong || line.size() == kMaxLine;
        if (!tooLong)
            line.push_back(static_cast<char>(c));
    }
    return tooLong ? Line::TooLong : Line::Read;
}

/// Reads a password without echo from a terminal, or as it comes from elsewhere.
bool readPassword(std::string& password, const char* prompt)
{
    const HiddenInput hidden;
    if (isInteractive())
        std::fputs(prompt, stderr);
    return readLine(password) == Line::Read;
}

std::string_view trimmed(std::string_view text)
{
    const std::size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string_view::npos)
        return {};
    return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

/// Cuts the first word off @p text.
std::string_view takeWord(std::string_view& text)
{
    text = trimmed(text);
    const std::string_view word = text.substr(0, text.find_first_of(" \t"));
    text.remove_prefix(word.size());
    text = trimmed(text);
    return word;
}

/// A terminal obeys control characters, those of UTF-8 too, and anybody may have set a property.
void disarm(std::string& text)
{
    unsigned char before = 0;
    for (char& c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte < 0x20 && c != '\n' && c != '\t') || byte == 0x7f || (before == 0xc2 && byte < 0xa0))
            c = '?';
        before = byte;
    }
}

/// What the user typed, command by command.
class Console {
public:
    /// A script ends with the first login that fails.
    Console(Client& client, bool isScript) : m_client(client), m_isScript(isScript) {}

    bool isOver() const { return m_over; }
    bool hasFailed() const { return m_failed; }
    bool isConnected() const { return m_connected; }

    void logIn(std::string_view user)
    {
        std::string password;
        if (readPassword(password, "Password: "))
            ask(protocol::Login, {user, password});
        else
            complain("no password");
        explicit_bzero(password.data(), password.size());
        m_over = m_over || (m_isScript && m_failed);
    }

    void changePassword()
    {
        std::string current, next, again;
        if (!readPassword(current, "Current password: ") || !readPassword(next, "New password: ") ||
            !readPassword(again, "Retype new password: "))
            complain("no password");
        else if (next != again)
            complain("the new passwords differ");
        else
            ask(protocol::ChangePassword, {current, next});
        for (std::string* const password : {&current, &next, &again})
            explicit_bzero(password->data(), password->size());
    }

    void complain(const char* what)
    {
        std::fprintf(stderr, "console: %s\n", what);
        m_failed = true;
    }

    void execute(std::string_view line)
    {
        const std::string_view word = takeWord(line);
        if (word.empty())
            return;
        if (word == "help") {
            std::fputs(kHelp, stdout);
        } else if (word == "quit") {
            m_over = true;
        } else if (word == "login" && !line.empty()) {
            logIn(line);
        } else if (word == "who") {
            ask(protocol::Who, {});
        } else if (word == "get" && !line.empty()) {
            ask(protocol::Get, {line});
        } else if (word == "run" && !line.empty()) {
            ask(protocol::Run, {line});
        } else if (word == "passwd") {
            changePassword();
        } else if (word == "logout") {
            ask(protocol::Logout, {});
            m_over = true;
        } else if (const auto operation = withTwoFields(word); operation && !line.empty()) {
            const std::string_view first = takeWord(line);
            ask(*operation, {first, line});
        } else {
            std::fprintf(stderr, "console: cannot understand \"%.*s\"; try help\n",
                         static_cast<int>(word.size()), word.data());
            m_failed = true;
        }
    }

private:
    static std::optional<protocol::Operation> withTwoFields(std::string_view word)
    {
        if (word == "set")
            return protocol::Set;
        if (word == "event")
            return protocol::Event;
        if (word == "call")
            return protocol::Call;
        return std::nullopt;
    }

    void ask(short operation, const std::vector<std::string_view>& fields)
    {
        if (protocol::sizeOf(fields) > protocol::kMaxBytes) {
            complain("the request is too long");
            return;
        }
        Client::Answer answer = m_client.ask(operation, fields);
        if (!answer.arrived) {
            std::fputs("console: the daemon closed the connection\n", stderr);
            m_connected = false;
            m_failed = m_over = true;
            return;
        }
        const bool done = answer.result == protocol::Done;
        std::FILE* const stream = done ? stdout : stderr;
        disarm(answer.text);
        std::fprintf(stream, "%s%s%s", done ? "" : "console: ", answer.text.c_str(),
                     answer.text.ends_with('\n') ? "" : "\n");
        m_failed = std::fflush(stream) != 0 || m_failed || !done;
    }

    Client& m_client;
    const bool m_isScript;
    bool m_over = false;
    bool m_failed = false;
    bool m_connected = true;
};

void runScript(Console& console, std::string_view script)
{
    while (!console.isOver() && !script.empty()) {
        const std::size_t end = script.find(';');
        console.execute(script.substr(0, end));
        script.remove_prefix(end == std::string_view::npos ? script.size() : end + 1);
    }
}

void runDialogue(Console& console)
{
    std::string line;
    while (!console.isOver()) {
        if (isInteractive()) {
            std::fputs("console> ", stdout);
            std::fflush(stdout);
        }
        switch (readLine(line)) {
        case Line::Read:
            console.execute(line);
            break;
        case Line::TooLong:
            console.complain("the line is too long");
            break;
        case Line::End:
            return;
        }
    }
}

int talk(const char* host, int port, const char* user, const char* script)
{
    Client client(host, port);
    Console console(client, script != nullptr || !isInteractive());
    if (user != nullptr)
        console.logIn(user);
    if (script != nullptr)
        runScript(console, script);
    else
        runDialogue(console);
    if (!console.isConnected())
        return NoConnection;
    return console.hasFailed() ? CommandFailed : Success;
}

} // namespace

int main(int argc, char** argv)
{
    CommandLine line(argc, argv);
    int port = 0;
    if (line.getUnknown({"port", "host", "user", "c"}) != nullptr || !line.getInt("port", 1, 65535, port) ||
        port == 0) {
        std::fputs("usage: console -port N [-host H] [-user NAME] [-c 'COMMAND; COMMAND ...']\n", stderr);
        return WrongUsage;
    }
    std::signal(SIGPIPE, SIG_IGN);
    std::setvbuf(stdin, nullptr, _IONBF, 0); // a password must not stay in the stream's buffer
    try {
        return talk(line.getArg("host", "127.0.0.1"), port, line.getArg("user"), line.getArg("c"));
    } catch (const GorvSocketException& failure) {
        std::fprintf(stderr, "console: %s", failure.getMessage().c_str());
        return NoConnection;
    }
}
