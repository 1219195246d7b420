// SPDX-License-Identifier: BSD-3-Clause
#include "KEPClient.h"
#include "ALog.h"
#include "FakeService.h"
#include "support/Files.h"
#include "support/OtherThread.h"

#include <algorithm>
#include <climits>
#include <functional>
#include <gtest/gtest.h>
#include <new>

// An array of the largest size runs out of memory at once, under every sanitizer.
void* operator new[](std::size_t size)
{
    return size < INT_MAX ? ::operator new(size) : throw std::bad_alloc();
}

void operator delete[](void* array) noexcept
{
    ::operator delete(array);
}

void operator delete[](void* array, std::size_t) noexcept
{
    operator delete[](array);
}

namespace {

struct KEPClientTest : testing::Test {
    KEPClientTest()
    {
        m_client.setLog(m_parent);
        answers.clear();
        answeredReads.clear();
    }
    ~KEPClientTest() override { m_parent.removeChildLog(m_client.getLog()); }

    /// Standard output: the calls that reach the service, the client's own lines and, after " -", its log.
    std::string outputOf(const std::function<void()>& action)
    {
        m_log.setShowTimestamp(false);
        CapturedStream console(stdout);
        action();
        return console.text();
    }

    ALog m_log{"", stdout};
    AComponentLog m_parent{"parent", m_log};
    KEPClient m_client{"host", -5};
};

TEST_F(KEPClientTest, InitialisationStopsAtTheFirstRefusalAndAttachesUntilAllSucceeds)
{
    const std::string events[] = {"event_certificate_updated",      "gui_event_config_changed",
                                  "pm_event_telnet_config_changed", "tolvex_event_config_changed",
                                  "pm_event_snmp_config_changed",   "pm_event_asra_config_changed"};
    bool attached = false;
    for (const int refused : {-1, 0, 1, 2, 3, 4, 5, 6, 2, 6}) { // -1 is kep_init, 6 is nothing
        const std::string what = refused < 0 ? "initialize KEP" : "register " + events[std::min(refused, 5)];
        const std::string line = "KEPClient:  failed to " + what + "!!!\n";
        std::string expected = attached ? " -Calling kep_init\n" : " -Calling kep_init\nkep_init host -5 1\n";
        for (int i = 0; i <= std::min(refused, 5); ++i)
            expected += "kep_event_register " + events[i] + "\n";
        if (refused < 6)
            expected += (refused > 0 ? line : "") + " -" + line;
        answers = {{"kep_init", refused < 0 ? 0x102 : 0x101}, {"kep_event_" + what, refused < 6 ? 0 : 2}};
        EXPECT_EQ(outputOf([&] { EXPECT_TRUE(m_client.initialize()); }),
                  expected + " -  KEP initialization done.\n");
        attached = attached || refused == 6;
    }
}

TEST_F(KEPClientTest, LowestBitOrByteDecidesAndOnlyWhatChangesIsWritten)
{
    // Results of reads and of writes. What a failed read leaves must not pass for the value when it is
    // written.
    for (const auto& [reads, writes] : {std::pair{0, 0}, {2, 0x100}, {0x100, 0}, {1, 1}, {0x103, 2}}) {
        answers = {{"kep_config_get", reads}, {"kep_event_occurred", reads}, {"kep_config_set", writes}};
        const bool done = reads % 2 != 0;
        const auto log = [&](const std::string& what, const std::string& name = "p") {
            return done ? "" : " -Failed to get " + what + " for property: " + name + "\n";
        };
        const auto use = [&] {
            char text[256] = "p", shortText[8] = "p", data[] = "data"; // names that the texts replace
            int number = 99;
            bool truth = true;
            for (const bool result :
                 {m_client.getProperty(text, text), m_client.getProperty(shortText, shortText, 8),
                  m_client.getProperty("p", number), m_client.getProperty("p", truth),
                  m_client.notifyEvent("e", 3, data), m_client.setProperty("p", "", false),
                  m_client.setProperty("p", 0, false), m_client.setProperty("p", false, true)})
                std::printf("%d", result);
            std::printf(" %s.%s. %d %d", text, shortText, number, truth);
        };
        EXPECT_EQ(outputOf(use),
                  "kep_config_get_str_n p 256\nkep_config_get_str_n p 8\n" + log("a value", "text") +
                      "kep_config_get_int p\n" + log("an int value") + "kep_config_get_bool p\n" +
                      log("an bpol value") + "kep_event_occurred e dat\n" +
                      (done ? "" : " -KEPClient: notifyEvent failed.\n") +
                      "kep_config_get_str_n p 256\nkep_config_set_str_n p  1\nkep_config_get_int p\n" +
                      log("an int value") + "kep_config_set_int p 0 0\nkep_config_get_bool p\n" +
                      log("an bpol value") + "kep_config_set_bool p 0 1\n" +
                      (done ? "11111111 text.text. 7 1" : "00000000 .. 0 0"));
    }
    EXPECT_FALSE(m_client.setProperty("p", "text", true) || m_client.setProperty("p", 7, true) ||
                 m_client.setProperty("p", true, true) || m_client.setProperty("p", nullptr, true));
}

TEST_F(KEPClientTest, TextThatFillsTheBufferOrIsNoneIsReadInsideIt)
{
    const std::string full(255, 'x'), overfull(256, 'x');
    const std::tuple<const char*, const char*, std::string> rows[] = {
        // what the service fills in; what is read of it into 8 bytes; a value that isn't known to be that
        {"text", "text", "texts"},
        {nullptr, "-------", "x"},
        {full.c_str(), "xxxxxxx", overfull},
        {overfull.c_str(), "xxxxxxx", full},
        {overfull.c_str(), "xxxxxxx", overfull},
    };
    for (const auto& [answer, text, value] : rows) {
        answeredText = answer;
        std::vector<char> buffer(8, '-');
        outputOf([&] { EXPECT_TRUE(m_client.getProperty("p", buffer.data(), 8)); });
        EXPECT_STREQ(buffer.data(), text);
        outputOf([&, &fresh = value] { EXPECT_TRUE(m_client.setProperty("p", fresh.c_str(), true)); });
    }
    for (const auto& [answer, value] :
         {std::pair<const char*, const char*>{full.c_str(), full.c_str()}, {nullptr, ""}}) {
        answeredText = answer;
        outputOf([&, same = value] { EXPECT_FALSE(m_client.setProperty("p", same, true)); });
    }
    // A name that a refused text without an end has taken the place of.
    answeredText = full.c_str();
    answers = {{"kep_config_get", 0}};
    std::vector<char> name{'p', 0, '-', '-'};
    EXPECT_EQ(outputOf([&] { m_client.getProperty(name.data(), name.data(), 4); }),
              "kep_config_get_str_n p 4\n -Failed to get a value for property: xxx\n");
    answeredText = "text";
    // No room, not even for an end.
    char bytes[] = "--";
    for (const int found : {1, 0}) {
        answers = {{"kep_config_get", found}};
        outputOf([&] { EXPECT_EQ(m_client.getProperty("p", bytes + 1, 0), found == 1); });
        EXPECT_STREQ(bytes, "--");
    }
}

TEST_F(KEPClientTest, UpdateTellsFailureFromNoChangeForTextsOfAnyLength)
{
    const std::string text(300, 'x');
    std::string value = "p";
    answeredReads = {{-2, 300}, {0, 300}};
    EXPECT_EQ(outputOf([&] { EXPECT_EQ(m_client.updateProperty("p", text.c_str(), false), 1); }),
              "kep_config_get p 0\nkep_config_get p 300\nkep_config_set_str_n p " + text + " 1\n");
    EXPECT_EQ(outputOf([&] { m_client.getProperty(value.c_str(), value); }),
              "kep_config_get p 0\nkep_config_get p 5\n");
    outputOf([&] {
        answers = {{"kep_config_set", 0x100}}; // refused
        EXPECT_EQ(m_client.updateProperty("p", "xx", true), -1);
        EXPECT_EQ(m_client.updateProperty("p", 8, true), -1);
        EXPECT_EQ(m_client.updateProperty("p", false, true), -1);
        EXPECT_EQ(m_client.updateProperty("p", nullptr, true), -1);
        answeredReads = {{-2, 301}, {0, 301}};
        EXPECT_EQ(m_client.updateProperty("p", text.c_str(), true), 0);
        EXPECT_EQ(m_client.updateProperty("p", 7, true), 0);
        EXPECT_EQ(m_client.updateProperty("p", true, true), 0);
        answers.clear();
        for (const auto& reads : {std::deque{std::pair{-1, 9}}, {{0, 0}}, {{-2, 5}, {-2, 5}}}) {
            answeredReads = reads;
            value = "earlier";
            EXPECT_EQ(m_client.getProperty("p", value), reads[0].first == 0);
            EXPECT_EQ(value, "");
        }
    });
}

TEST_F(KEPClientTest, CancellationWaitsUntilTheOperationHasReturned)
{
    answers = {{"kep_config_get", 0}}; // so that all is written
    bool returned = false;
    const auto useAll = [&] {
        char buffer[256] = "p";
        std::string text;
        int number = 0;
        bool truth = false;
        KEPClient::Callback* callback = nullptr;
        m_client.initialize();
        m_client.getProperty("p", buffer);
        m_client.getProperty("p", text);
        m_client.getProperty("p", number);
        m_client.getProperty("p", truth);
        m_client.setProperty("p", "x", true);
        m_client.updateProperty("p", "x", true);
        m_client.updateProperty("p", 1, true);
        m_client.updateProperty("p", true, true);
        m_client.notifyEvent("e", 0, nullptr);
        m_client.callFunction("f", 1, buffer, 256, number, buffer);
        m_client.registerCallback("f", &callback);
    };
    const std::string calls = outputOf([&] { returned = returnsWhenCancelled(useAll); });
    EXPECT_TRUE(returned) << "cancelled behind:\n" << calls;
}

template <typename Value>
constexpr bool isWritten = requires(KEPClient& client, Value value)
{
    client.setProperty("p", value, true);
    client.updateProperty("p", value, true);
};
struct Flag {
    operator bool() const;
    operator void*() const;
};
static_assert(isWritten<char*> && isWritten<const char*> && isWritten<std::nullptr_t>);
static_assert(isWritten<int> && isWritten<short> && isWritten<bool> && isWritten<Flag>);
static_assert(!isWritten<const char8_t*> && !isWritten<unsigned char*> && !isWritten<const void*>);
static_assert(!isWritten<void (*)()> && !isWritten<int KEPClientTest::*>);

TEST_F(KEPClientTest, GrowingReadAsksTwiceAtMostAndStaysInsideItsArray)
{
    const std::string missing = " -Property value not found for p\n";
    const std::string twice =
        " -The call to kep_config_get for property p returned KEP_ERROR_MAXCNT_SIZE twice "
        "even though a new buffer of the specified size was allocated.";
    const std::tuple<int, std::deque<std::pair<int, int>>, std::string> cases[] = {
        // room of the array, codes and sizes from the service; log, outcome, size, array. No room: no array.
        {8, {{0, 3}}, "0 3 xx"},
        {0, {{-2, 9}, {0, 9}}, "0 9 xxxxxxxx"},
        {2, {{-2, 5}, {0, 4}}, "0 4 xxx"},
        {4, {{-1, 77}}, missing + "-1 77 "},
        {0, {{-1, 0}}, missing + "-1 0 (null)"},
        {2, {{-2, 1}, {-2, 9}}, twice + "Unable to retrieve property 9 "},
        {4, {{-2, 0}, {-5, 0}}, missing + "-5 0 "}, // needs nothing
        {4, {{-2, INT_MAX}}, "std::bad_alloc 0 (null)"},
        {4, {{0, 400}}, "0 4 xxx"}, // claims more than the array
        {4, {{0, 0}}, "0 0 "},
        {-4, {{0, 4}}, "0 0 (null)"},
    };
    for (const auto& [room, reads, outcome] : cases) {
        answeredReads = reads;
        char* buffer = room <= 0 ? nullptr : new char[static_cast<std::size_t>(room)];
        int size = room;
        const auto read = [&] {
            try {
                std::printf("%d", m_client.getProperty("p", &buffer, size));
            } catch (const char* reason) {
                std::printf("%s", reason);
            } catch (const std::bad_alloc& error) {
                std::printf("%s", error.what());
            }
            std::printf(" %d %s", size, buffer);
        };
        std::string calls = "kep_config_get p " + std::to_string(room) + "\n";
        if (reads.size() > 1)
            calls += "kep_config_get p " + std::to_string(std::max(reads[0].second, 1)) + "\n";
        EXPECT_EQ(outputOf(read), calls + outcome);
        delete[] buffer;
    }
}

TEST_F(KEPClientTest, RemoteCallReportsBothSizesAndKeepsTheReceivedSizeOnFailure)
{
    for (const auto& [code, failure] : {std::pair<int, std::string>{0, ""},
                                        {-8, "rpc failure"},
                                        {-2, "buffer too small"},
                                        {3, "unknown errors"}}) {
        answers["kep_function_execute"] = code;
        char request[] = "hi!", reply[16];
        int received = 99;
        const auto call = [&] {
            std::printf("%d", m_client.callFunction("f", 2, request, 16, received, reply));
        };
        EXPECT_EQ(outputOf(call),
                  "name: f   size: 2   maxReceiveSize: 16\n -KEPClient: invoking function f\n"
                  "kep_function_execute f hi 16\n" +
                      (code == 0 ? "" : " -KEPClient: function call failed, " + failure + ".\n") +
                      "name: f   size: 5   maxReceiveSize: 16\n" + std::to_string(code));
        EXPECT_EQ(received, code == 0 ? 5 : 99);
        EXPECT_STREQ(reply, "reply");
    }
}

TEST_F(KEPClientTest, EveryFormOfATextIsPassedAsATextAndARefusedCallbackEndsNothing)
{
    answers = {{"kep_function_register", -4}};
    const auto pass = [&](auto&& text) {
        return outputOf([&] {
            KEPClient client(text, 1);
            KEPClient::Callback* callback = nullptr;
            client.setProperty("p", text, true);
            client.notifyEvent(text, 0, nullptr);
            client.registerCallback(text, &callback);
        });
    };
    char array[] = "a text";
    const std::string refused =
        "registerCallback() - kep_function_register failed, error code: -4, exiting program\n";
    for (const std::string& output :
         {pass("a text"), pass(+"a text"), pass(array), pass(+array)}) // + gives a pointer
        EXPECT_EQ(output, "kep_config_get_str_n p 256\nkep_config_set_str_n p a text 1\n"
                          "kep_event_occurred a text \nkep_function_register a text 0\n" +
                              refused);
    EXPECT_EQ(pass(nullptr), "kep_event_occurred (null) \nkep_function_register (null) 0\n" + refused);
}

} // namespace
