// SPDX-License-Identifier: BSD-3-Clause
#include "SystemExec.h"
#include "support/Interposed.h"

#include <array>
#include <csignal>
#include <gtest/gtest.h>
#include <unistd.h>

// This program loads the library when it is running, and has a function with the name of its handler.

static bool s_called = false;

__attribute__((visibility("default"))) void signalHandler(int)
{
    s_called = true;
}

INTERPOSED unsigned sleep(unsigned)
{
    return 0;
}

namespace {

template <typename Result, typename... Arguments>
Result call(void* library, const char* name, Arguments... arguments)
{
    return reinterpret_cast<Result (*)(Arguments...)>(::dlsym(library, name))(arguments...);
}

TEST(SystemExecUnloadTest, HandlerIsTheLibrarysAndOutlivesItsUnloading)
{
    void* const library = ::dlopen(GORV_LIBRARY, RTLD_NOW);
    ASSERT_NE(library, nullptr) << ::dlerror();
    alignas(SystemExec) std::array<char, sizeof(SystemExec)> memory;
    auto* const runner = reinterpret_cast<SystemExec*>(memory.data());
    std::string command = "cat";
    call<void>(library, "_ZN10SystemExecC1Ev", runner);
    call<void>(library, "_ZN10SystemExec10setCommandERNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE",
               runner, &command);
    call<void>(library, "_ZN10SystemExec7executeEv", runner);
    const int output = call<int>(library, "_ZN10SystemExec9getStdOutEv", runner);
    const pid_t child = call<int>(library, "_ZN10SystemExec6getPidEv", runner);
    ASSERT_EQ(::dlclose(library), 0);
    ::kill(child, SIGKILL);
    for (int i = 0; i < 500 && ::kill(child, 0) == 0; ++i)
        ::usleep(10'000);
    EXPECT_EQ(::close(output), -1);
    EXPECT_FALSE(s_called);
}

} // namespace
