// SPDX-License-Identifier: BSD-3-Clause
#include "Programs.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

TEST(ProgramsTest, NothingOfAProgramOutlivesItsTime)
{
    int hungUp[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, hungUp), 0);
    ::shutdown(hungUp[0], SHUT_RDWR);
    const auto run = [](int limitSeconds, const char* script, std::string& output, int connection = -1) {
        return Programs({{"it", {"/bin/sh", "-c", script, nullptr}}}, limitSeconds)
            .run("it", 4096, connection, output);
    };
    std::string output;
    EXPECT_EQ(run(99, "exec sleep 99", output, hungUp[0]), Programs::Outcome::Failed);
    for (const int end : hungUp)
        ::close(end);
    EXPECT_EQ(run(2, "exec >&- 2>&-; kill -STOP $$", output), Programs::Outcome::Failed);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
}

} // namespace
