// SPDX-License-Identifier: BSD-3-Clause
#include "SystemExec.h"
#include "support/Interposed.h"

#include <gtest/gtest.h>
#include <unistd.h>

static bool s_called = false;

// This program has a function with the name of the library's handler.
__attribute__((visibility("default"))) void signalHandler(int)
{
    s_called = true;
}

INTERPOSED unsigned sleep(unsigned)
{
    return 0;
}

TEST(SystemExecHandlerTest, IsTheLibrarysThoughTheProgramHasOneOfItsName)
{
    SystemExec runner;
    std::string command = "true";
    runner.setCommand(command);
    runner.execute();
    ASSERT_NE(runner.getPid(), -1);
    for (int i = 0; i < 1000 && runner.getStdOut() != -1; ++i)
        ::usleep(10'000);
    EXPECT_EQ(runner.getStdOut(), -1);
    EXPECT_FALSE(s_called);
}
