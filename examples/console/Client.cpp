#include "Client.h"

#include "Protocol.h"

#include <cstdio>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <unistd.h>

namespace {

constexpr unsigned int kAnswerSeconds = 60;

/// Sends standard output to standard error for one scope.
class OutputAside {
public:
    OutputAside()
    {
        std::fflush(stdout);
        m_saved = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
        m_isAside = m_saved >= 0 && ::dup2(STDERR_FILENO, STDOUT_FILENO) >= 0;
    }
    ~OutputAside()
    {
        std::fflush(stdout);
        if (m_isAside && ::dup2(m_saved, STDOUT_FILENO) < 0)
            std::perror("console: standard output is lost");
        ::close(m_saved);
    }
    OutputAside(const OutputAside&) = delete;
    OutputAside& operator=(const OutputAside&) = delete;

private:
    int m_saved;
    bool m_isAside;
};

} // namespace

Client::Answer Client::ask(short operation, const std::vector<std::string_view>& fields)
{
    if (!m_socket.isOpen()) {
        const OutputAside aside; // the socket reports its progress; a script reads answers only
        m_socket.setSilent(true);
        m_socket.createIPSocket(m_host.c_str(), m_port);
    }
    std::string bytes = protocol::joinFields(fields);
    std::string frame = protocol::frame(operation, bytes);
    m_socket.write(reinterpret_cast<const unsigned char*>(frame.data()), static_cast<int>(frame.size()));
    OPENSSL_cleanse(bytes.data(), bytes.size()); // one of the fields may be a password
    OPENSSL_cleanse(frame.data(), frame.size());

    Answer answer;
    int length = 0;
    if (m_socket.readShort(answer.result, kAnswerSeconds) != 2 ||
        m_socket.readInt(length, kAnswerSeconds) != 4 ||
        static_cast<unsigned int>(length) > protocol::kMaxBytes)
        return answer;
    answer.text.resize(static_cast<std::size_t>(length));
    auto* const text = reinterpret_cast<unsigned char*>(answer.text.data());
    answer.arrived = m_socket.readFully(text, 0, length, kAnswerSeconds) == length;
    return answer;
}
