// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <chrono>
#include <cstddef>

/// What anybody may cost the daemon. `consoled -help` shows these numbers.
namespace limits {

constexpr std::size_t kConnections = 512;

constexpr std::size_t kStrangers = 128; // connections without a login; half of them of one address,
constexpr int kStrangerSeconds = 20;    // for so long
constexpr std::size_t kLogins = 16;     // that strangers try at a time; half of them from one address,
constexpr std::size_t kKnownLogins = 4; // and those as a known user from where he is known
constexpr int kRefusals = 3;            // of one connection
constexpr int kRefusalsAtOnce = 10;     // of one address or user name, then one in
constexpr std::chrono::seconds kRefusalPace{1};
constexpr std::chrono::milliseconds kRefusalTime{500}; // no refusal comes sooner after its turn
constexpr std::chrono::hours kKnownTime{7 * 24};

constexpr std::size_t kUsers = 352; // connections with a login, so that there is room for all of these
constexpr int kUserSessions = 64;   // of them, those of one user
constexpr int kProperties = 2048;   // that users make while the daemon runs
constexpr int kUserProperties = 256;
constexpr int kDeedsAtOnce = 500; // logins and requests that are logged, of one user, then one in
constexpr std::chrono::milliseconds kDeedPace{100};

constexpr int kIdleSeconds = 300;
constexpr int kProgramSeconds = 20;
constexpr int kStopSeconds = 5; // for what sessions are in when the daemon stops

} // namespace limits
