#include "KEPClient.h"
#include "ALog.h"
#include "FakeService.h"
#include "support/Files.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
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
    ::operator delete(array);
}

namespace {

class KEPClientTest : public testing::Test {
protected:
    KEPClientTest()
    {
        answers.clear();
        m_log.setShowTimestamp(false);
        m_client.setLog(m_parent);
    }
    ~KEPClientTest() override { m_parent.removeChildLog(m_client.getLog()); }

    /// Standard output: the calls that reach the service, the client's own lines and, after " -", its log.
    template <typename Action>
    std::string outputOf(Action action)
    {
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

TEST_F(KEPClientTest, ReadsAndEventsSucceedByTheLowestBitAndAFailureLeavesNothing)
{
    for (const int result : {0, 2, 0x100, 1, 0x103}) {
        const bool ok = result % 2 == 1;
        const auto unlessOk = [&](const std::string& line) { return ok ? "" : " -" + line + "\n"; };
        answers = {{"kep_config_get", result}, {"kep_event_occurred", result}};
        char text[256], shortText[8], data[] = "data";
        int number = 99;
        bool truth = true;
        EXPECT_EQ(outputOf([&] {
                      EXPECT_EQ(m_client.getProperty("p", text), ok);
                      EXPECT_EQ(m_client.getProperty("p", shortText, 8), ok);
                      EXPECT_EQ(m_client.getProperty("p", number), ok);
                      EXPECT_EQ(m_client.getProperty("p", truth), ok);
                      EXPECT_EQ(m_client.notifyEvent("e", 3, data), ok);
                  }),
                  "kep_config_get_str_n p 256\n"
                  "kep_config_get_str_n p 8\n" +
                      unlessOk("Failed to get a value for property: p") + "kep_config_get_int p\n" +
                      unlessOk("Failed to get an int value for property: p") + "kep_config_get_bool p\n" +
                      unlessOk("Failed to get an bpol value for property: p") + "kep_event_occurred e dat\n" +
                      unlessOk("KEPClient: notifyEvent failed."));
        EXPECT_STREQ(text, ok ? "text" : "");
        EXPECT_STREQ(shortText, ok ? "text" : "");
        EXPECT_EQ(number, ok ? 7 : 0);
        EXPECT_EQ(truth, ok);
    }
}

TEST_F(KEPClientTest, GrowingReadAsksTwiceAtMostAndStaysInsideItsArray)
{
    const std::string missing = " -Property value not found for p\n";
    const std::string twice =
        " -The call to kep_config_get for property p returned KEP_ERROR_MAXCNT_SIZE twice "
        "even though a new buffer of the specified size was allocated.";
    constexpr int kThrown = 1000, kNull = -1;
    const struct {
        int room; // of the array that the host brings; it brings none if this is not above 0
        std::deque<std::pair<int, int>> reads;
        int result, size, length;
        std::string line;
    } cases[] = {
        {8, {{0, 3}}, 0, 3, 2, ""},
        {0, {{-2, 40}, {0, 40}}, 0, 40, 39, ""},
        {2, {{-2, 5}, {0, 4}}, 0, 4, 3, ""},
        {4, {{-1, 77}}, -1, 77, 0, missing},
        {0, {{-1, 0}}, -1, 0, kNull, missing},
        {0, {{-2, 4}, {-1, 4}}, -1, 4, 0, missing},
        {2, {{-2, 1}, {-2, 9}}, kThrown, 9, 0, twice},
        {4, {{-2, 0}, {-5, 0}}, -5, 0, 0, missing},       // needs nothing
        {4, {{-2, -7}, {-2, -7}}, kThrown, -7, 0, twice}, // needs less than nothing
        {4, {{-2, INT_MAX}}, kThrown, 0, kNull, ""},      // needs more than there is
        {4, {{0, 400}}, 0, 4, 3, ""},                     // claims more than the array
        {0, {{-2, 4}, {0, 400}}, 0, 4, 3, ""},            // claims more than it needed
        {4, {{0, 0}}, 0, 0, 0, ""},
        {4, {{0, INT_MIN}}, 0, 0, 0, ""},
        {-4, {{0, 4}}, 0, 0, kNull, ""},
    };
    for (const auto& c : cases) {
        std::string calls = "kep_config_get p " + std::to_string(c.room) + "\n";
        if (c.reads.size() > 1)
            calls += "kep_config_get p " + std::to_string(std::max(c.reads[0].second, 1)) + "\n";
        SCOPED_TRACE(calls);
        answeredReads = c.reads;
        char* buffer = c.room <= 0 ? nullptr : new char[static_cast<std::size_t>(c.room)];
        int size = c.room;
        int result = kThrown;
        const auto read = [&] {
            try {
                result = m_client.getProperty("p", &buffer, size);
            } catch (const char* reason) {
                EXPECT_STREQ(reason, "Unable to retrieve property");
            } catch (const std::bad_alloc&) {
                EXPECT_EQ(c.reads[0].second, INT_MAX);
            }
        };
        EXPECT_EQ(outputOf(read), calls + c.line);
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(size, c.size);
        EXPECT_EQ(buffer == nullptr ? kNull : static_cast<int>(std::strlen(buffer)), c.length);
        delete[] buffer;
    }
}

TEST_F(KEPClientTest, WritesOnlyWhatChangesAndHandsTheLowestByteBack)
{
    const auto write = [&](const char* text, int number, bool truth, bool flag) {
        return outputOf([&] {
            std::printf("%d\n", m_client.setProperty("p", text, flag));
            std::printf("%d\n", m_client.setProperty("p", number, flag));
            std::printf("%d\n", m_client.setProperty("p", truth, flag));
        });
    };
    EXPECT_EQ(write("text", 7, true, true),
              "kep_config_get_str_n p 256\n0\nkep_config_get_int p\n0\nkep_config_get_bool p\n0\n");
    answers = {{"kep_config_set", 2}};
    EXPECT_EQ(write("text2", 8, false, false),
              "kep_config_get_str_n p 256\nkep_config_set_str_n p text2 1\n1\n"
              "kep_config_get_int p\nkep_config_set_int p 8 0\n1\n"
              "kep_config_get_bool p\nkep_config_set_bool p 0 0\n1\n");
    // What a failed read leaves behind must not pass for the value.
    answers = {{"kep_config_get", 0}, {"kep_config_set", 0x100}};
    EXPECT_EQ(
        write("", 0, false, true),
        "kep_config_get_str_n p 256\nkep_config_set_str_n p  1\n0\nkep_config_get_int p\n"
        " -Failed to get an int value for property: p\nkep_config_set_int p 0 1\n0\nkep_config_get_bool p\n"
        " -Failed to get an bpol value for property: p\nkep_config_set_bool p 0 1\n0\n");
}

TEST_F(KEPClientTest, RemoteCallReportsBothSizesAndKeepsTheReceivedSizeOnFailure)
{
    const std::map<int, std::string> failures = {{0, ""},
                                                 {-8, "rpc failure"},
                                                 {-2, "buffer too small"},
                                                 {-1, "unknown errors"},
                                                 {3, "unknown errors"}};
    for (const auto& [code, failure] : failures) {
        answers["kep_function_execute"] = code;
        char request[] = "hi!", reply[16];
        int received = 99;
        const auto call = [&] { return m_client.callFunction("f", 2, request, 16, received, reply); };
        EXPECT_EQ(outputOf([&] { EXPECT_EQ(call(), code); }),
                  "name: f   size: 2   maxReceiveSize: 16\n -KEPClient: invoking function f\n"
                  "kep_function_execute f hi 16\n" +
                      (code == 0 ? "" : " -KEPClient: function call failed, " + failure + ".\n") +
                      "name: f   size: 5   maxReceiveSize: 16\n");
        EXPECT_EQ(received, code == 0 ? 5 : 99);
        EXPECT_STREQ(reply, "reply");
    }
}

TEST_F(KEPClientTest, RefusedCallbackIsReportedInTheServicesLogAndTheHostLivesOn)
{
    KEPClient::Callback* callback = [](int*, int, void*, void*) { return 0; };
    answers["kep_function_register refused"] = -4;
    EXPECT_EQ(outputOf([&] {
                  m_client.registerCallback("accepted", &callback);
                  m_client.registerCallback("refused", &callback);
              }),
              "kep_function_register accepted function\nkep_function_register refused function\n"
              "registerCallback() - kep_function_register failed, error code: -4, exiting program\n");
}

TEST_F(KEPClientTest, EveryFormOfATextIsPassedAsAText)
{
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
    char* pointer = array;
    const char* constPointer = array;
    const std::string expected = "kep_config_get_str_n p 256\nkep_config_set_str_n p a text 1\n"
                                 "kep_event_occurred a text \nkep_function_register a text null\n";
    EXPECT_EQ(pass("a text"), expected);
    EXPECT_EQ(pass(array), expected);
    EXPECT_EQ(pass(pointer), expected);
    EXPECT_EQ(pass(constPointer), expected);
    EXPECT_EQ(pass(nullptr), "kep_event_occurred (null) \nkep_function_register (null) null\n");
}

} // namespace
