// SPDX-License-Identifier: BSD-3-Clause
#include "Admission.h"

#include "AComponentLog.h"

#include <gtest/gtest.h>

namespace {

TEST(AdmissionTest, NameKeepsItsWayFromWhereItIsKnownWhateverOthersGuess)
{
    AComponentLog log;
    Admission admission(log);
    int connection = 1000;
    const auto begin = [&](const std::string& address, const std::string& user) {
        admission.enter(++connection, address);
        return admission.beginLogin(connection, user);
    };
    begin("10.0.0.1", "alice");
    ASSERT_NE(admission.endLogin(connection, Admission::Outcome::Admitted, 1), nullptr);
    for (int i = 0; i < 12'000; ++i) { // of addresses without end
        begin("10.1.0." + std::to_string(i), "alice");
        admission.endLogin(connection, Admission::Outcome::Refused, 0);
        admission.leave(connection);
    }
    admission.report(true); // what is over is forgotten
    for (const char* address : {"10.0.0.1", "10.0.0.2", "10.0.0.3"})
        for (int i = 0; i < 8; ++i)
            begin(address, "bob"); // and waits for his turn: two of the addresses hold all places
    EXPECT_FALSE(begin("10.0.0.4", "alice").isGranted);
    const auto turn = begin("10.0.0.1", "alice");
    EXPECT_TRUE(turn.isGranted);
    EXPECT_LE(turn.time, std::chrono::steady_clock::now());
    EXPECT_NE(admission.endLogin(connection, Admission::Outcome::Admitted, 2), nullptr);
    for (int i = 0; i < 2 * limits::kRefusalsAtOnce; ++i) { // her own address is slowed down for her name
        begin("10.0.0.1", "alice");
        admission.endLogin(connection, Admission::Outcome::Refused, 0);
    }
    EXPECT_GT(begin("10.0.0.1", "alice").time, std::chrono::steady_clock::now() + limits::kRefusalPace);
}

} // namespace
