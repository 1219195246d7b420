// SPDX-License-Identifier: BSD-3-Clause
#include "Client.h"

#include "Protocol.h"

#include <cstring>

namespace {

constexpr unsigned int kConnectSeconds = 10;
constexpr unsigned int kAnswerSeconds = 60;

} // namespace

Client::Answer Client::ask(short operation, const std::vector<std::string_view>& fields)
{
    if (!m_socket.isOpen())
        m_socket.connectTo(m_host.c_str(), m_port, kConnectSeconds);
    std::string bytes = protocol::joinFields(fields);
    std::string frame = protocol::frame(operation, bytes);
    m_socket.write(reinterpret_cast<const unsigned char*>(frame.data()), static_cast<int>(frame.size()));
    explicit_bzero(bytes.data(), bytes.size()); // one of the fields may be a password
    explicit_bzero(frame.data(), frame.size());

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
