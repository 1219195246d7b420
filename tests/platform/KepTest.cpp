// SPDX-License-Identifier: BSD-3-Clause
#include <climits>
#include <cstdlib>
#include <gtest/gtest.h>
#include <kep.h>
#include <new>
#include <string>

static thread_local int s_allocationsLeft = INT_MAX;

void* operator new(std::size_t size)
{
    void* memory = s_allocationsLeft-- > 0 ? std::malloc(size) : nullptr;
    return memory != nullptr ? memory : throw std::bad_alloc();
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

namespace {

/// A name that nobody has registered, in a suite that is repeated either.
std::string freshName(const std::string& begin)
{
    static int s_names = 0;
    return begin + std::to_string(++s_names);
}

TEST(KepTest, PropertyHasTheTypeThatWasWrittenLast)
{
    int number = 0;
    bool truth = false;
    char text[4] = "";
    for (int round = 0; round < 2; ++round) { // the second write changes nothing
        EXPECT_EQ(kep_config_set_int("p", -7, false), 1);
        EXPECT_EQ(kep_config_get_int("p", &number), 1);
        EXPECT_EQ(number, -7);
        EXPECT_EQ(kep_config_get_bool("p", &truth), 0);
    }
    EXPECT_EQ(kep_config_set_bool("p", true, true), 1);
    EXPECT_EQ(kep_config_get_bool("p", &truth), 1);
    EXPECT_TRUE(truth);
    EXPECT_EQ(kep_config_get_str_n("p", text, sizeof text), 0);
    EXPECT_EQ(kep_config_set_str_n("p", "abc", 1), 1);
    EXPECT_EQ(kep_config_get_int("p", &number), 0);
    EXPECT_EQ(number, -7);
}

TEST(KepTest, TextIsReadWhereItFits)
{
    kep_config_set_str_n("text", "abc", 1);
    const std::tuple<const char*, int, int, int, const char*> rows[] = {
        // name, room; code, size, what the array then holds
        {"text", 4, 0, 4, "abc"},
        {"text", 3, KEP_ERROR_MAXCNT_SIZE, 4, "-----"},
        {"text", -1, KEP_ERROR_MAXCNT_SIZE, 4, "-----"},
        {"texts", 5, -1, 5, "-----"},
        {nullptr, 5, -1, 5, "-----"},
    };
    for (const auto& [name, room, code, sizeLeft, left] : rows) {
        SCOPED_TRACE(room);
        char array[] = "-----", other[] = "-----";
        int size = room;
        EXPECT_EQ(kep_config_get(name, array, &size), code);
        EXPECT_EQ(size, sizeLeft);
        EXPECT_STREQ(array, left);
        EXPECT_EQ(kep_config_get_str_n(name, other, room), code == 0);
        EXPECT_STREQ(other, left);
    }
    int size = 9;
    EXPECT_EQ(kep_config_get("text", nullptr, &size), KEP_ERROR_MAXCNT_SIZE);
}

TEST(KepTest, EventIsRaisedWhenSomebodyIsRegistered)
{
    const std::string event = freshName("e");
    EXPECT_EQ(kep_event_occurred(event.c_str(), 0, nullptr) | kep_event_register(nullptr), 0);
    EXPECT_NE(kep_event_register(event.c_str()), 0);
    EXPECT_EQ(kep_event_occurred(event.c_str(), 0, nullptr), 1);
    EXPECT_EQ(kep_event_occurred("other", 0, nullptr) | kep_event_occurred(nullptr, 0, nullptr), 0);
}

TEST(KepTest, FunctionMayCallTheServiceAndItsReplyMayJustFit)
{
    kep_function* function = [](int* size, int, void* request, void*) {
        kep_config_set_int("asked", *size, true);
        *size = *static_cast<int*>(request);
        return *size == 9 ? 9 : 0;
    };
    EXPECT_EQ(kep_function_register("f", &function), 0);
    for (const auto& [replySize, code] : {std::pair{8, 0}, {7, 0}, {10, KEP_ERROR_MAXCNT_SIZE}, {9, 9}}) {
        int request = replySize, size = sizeof request, asked = 0;
        EXPECT_EQ(kep_function_execute("f", &size, &request, 8, nullptr), code) << replySize;
        EXPECT_EQ(size, replySize);
        EXPECT_EQ(kep_config_get_int("asked", &asked), 1);
        EXPECT_EQ(asked, sizeof request);
    }
    int size = 0;
    EXPECT_EQ(kep_function_execute("g", &size, nullptr, 0, nullptr), KEP_ERROR_RPC);
    kep_function* none = nullptr;
    EXPECT_NE(kep_function_register("g", &none), 0);
    EXPECT_NE(kep_function_register(nullptr, &function), 0);
}

TEST(KepTest, MemoryThatRunsOutIsAFailureAndChangesNothing)
{
    const std::string name = freshName(std::string(40, 'n')), text(100, 't');
    kep_function* function = [](int*, int, void*, void*) { return 0; };
    kep_config_set_int(name.c_str(), 1, true);
    bool done = false;
    for (int allocations = 0; !done; ++allocations) {
        s_allocationsLeft = allocations;
        const bool isWritten = kep_config_set_str_n(name.c_str(), text.c_str(), 1) != 0;
        s_allocationsLeft = allocations;
        const bool isRegistered = kep_event_register(name.c_str()) != 0;
        s_allocationsLeft = allocations;
        const bool isOffered = kep_function_register(name.c_str(), &function) == 0;
        s_allocationsLeft = INT_MAX;
        int number = 0, size = 0;
        EXPECT_EQ(kep_config_get_int(name.c_str(), &number), !isWritten);
        EXPECT_EQ(kep_event_occurred(name.c_str(), 0, nullptr), isRegistered);
        EXPECT_EQ(kep_function_execute(name.c_str(), &size, nullptr, 0, nullptr),
                  isOffered ? 0 : KEP_ERROR_RPC);
        done = isWritten && isRegistered && isOffered;
        EXPECT_FALSE(done && allocations == 0);
    }
}

} // namespace
