// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace fuzz {

/// A connection whose far end the fuzzer plays. The bytes come from a socket pair; a script stands between
/// the near end and the system and may cut each call short, interrupt it, or make it fail. One at a time
/// exists.
///
/// A call that would wait for ever fails as one on a broken connection, and a time limit passes at once.
class Wire {
public:
    /// What the near end's last call to wait or to receive came to.
    enum class Outcome { None, Data, End, TimedOut, Interrupted, Failed };

    /// The far end sends @p bytes, then closes if @p closes, else stays silent. Each byte of @p script
    /// decides about one call; when it is used up, calls go through as they are.
    Wire(std::string_view bytes, bool closes, std::string_view script);
    ~Wire();
    Wire(const Wire&) = delete;
    Wire& operator=(const Wire&) = delete;

    /// The near end, which its user closes.
    int nearEnd() const { return m_near; }
    Outcome lastOutcome() const { return m_outcome; }
    std::size_t received() const { return m_received; }

    // The system calls on the near end.
    ssize_t receive(void* buffer, std::size_t size);
    int wait(short& events);

private:
    std::uint8_t nextStep();
    template <typename Result>
    Result failWith(int error);

    int m_near = -1;
    int m_far = -1;
    std::string_view m_script;
    Outcome m_outcome = Outcome::None;
    std::size_t m_received = 0;
};

} // namespace fuzz
