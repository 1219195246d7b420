// SPDX-License-Identifier: BSD-3-Clause
#include "Daemon.h"

#include <random>

namespace {

TEST_F(ConsoleTest, ClientWalksThroughASession)
{
    start("-log log -trace trace -level 3");
    const std::string longLine =
        "wonderland\nget hostname\nset k " + std::string(5000, 'x') + " run id\nget k";
    const std::string next = "\ntea party\ntea party\n";
    const std::string changes = std::string(kPassphrase) + "\nwrong" + next + kPassphrase + next;
    const std::tuple<const char*, std::string, const char*> runs[] = {
        {"-user alice -c 'set hostname box-17; set hostname box-17; get hostname; event "
         "gui_event_config_changed now; "
         "call console_sessions; run system; set j a\033\u009b; get j; logout; get hostname'",
         kPassword, "logged in\nset\nset\nbox-17\nraised\n1\nLinux .*\nset\na\\?.\\?\nlogged out\n0\n"},
        {"-user alice -c 'get missing'", kPassword, "logged in\n1\n"},
        {"-user alice -c 'run rm'", kPassword, "logged in\n1\n"},
        {"-user alice -c who", "wrong", "1\n"},
        {"-user dave -c 'get hostname; set hostname x; event e d; call console_sessions; run id; who; "
         "logout'",
         kPassphrase,
         "logged in; the password must be changed\ndave from 127.0.0.1, session \\d+\nlogged out\n1\n"},
        {"-user dave -c 'passwd; get hostname; passwd; get hostname; passwd'", changes,
         "logged in; the password must be changed\nchanged\nbox-17\n1\n"},
        {"-user dave -c 'passwd'", "tea party\nanother\none",
         "logged in\n1\n"},                                  // with the new password; the new ones differ
        {"-user alice", longLine, "logged in\nbox-17\n1\n"}, // the long line is refused as a whole
        {"-c who", "", "1\n"},
        {"-c dance", "", "1\n"},
        {"-port 0", "", "2\n"},
        {"-port 1 -c who", "", "3\n"},
        {"-user alice -c help", "wrong", "1\n"}, // and no more
        {"-user alice -c who >/dev/full", kPassword, "1\n"},
    };
    for (const auto& [arguments, input, outcome] : runs) {
        const std::string output = runClient(arguments, input);
        EXPECT_TRUE(std::regex_match(output, std::regex(outcome))) << arguments << output;
    }
    EXPECT_EQ(countIn("log", "consoled - 127\\.0\\.0\\.1:\\d+: \"alice\" logged in, session 1\n"), 1);
    EXPECT_EQ(countIn("log", "\"dave\" changes \"password\": (done|the password was not changed)\n"), 2);
    EXPECT_NE(written("trace").find(": operation 7\n"), std::string::npos);
    EXPECT_NE(written("record").find("close user=alice rhost=127.0.0.1 INTERFACE_IP=127.0.0.1"),
              std::string::npos);
}

TEST_F(ConsoleTest, TwoHundredClientsAreAllServedAndLeaveNothing)
{
    start();
    const Peer watcher(m_port);
    ASSERT_EQ(watcher.logIn().result, Done);
    const long descriptors = count("fd");
    const long threads = count("task");
    const int logins = std::max(40 / kScale, 1); // of each client
    std::atomic<int> served = 0;
    const auto crowd = [&](int rounds) {
        inParallel(200, [&](unsigned client) {
            for (int login = 0; login < rounds; ++login) {
                const Peer peer =
                    loggedIn(m_port, userOf(static_cast<int>(client))); // they get in each other's way
                if (peer.ask(Who).result == Done &&
                    (login % 2 == 0 || peer.ask(Logout).result == Done)) // every other one just vanishes
                    ++served;
            }
        });
        EXPECT_TRUE(eventually([&] { return sessions(watcher) == 1; }));
        EXPECT_TRUE(eventually([&] { return count("fd") == descriptors && count("task") == threads; }));
        const std::string status = ofProcess("status");
        return std::stol(status.substr(status.find("VmRSS:") + 6)); // KiB
    };
    const long resident = crowd(1); // with what the daemon allocates once
    const long afterwards = crowd(logins);
    EXPECT_EQ(served, 200 * (1 + logins));
    if (ProcessMemory::canBeSearched()) {
        EXPECT_LT(afterwards, resident + 4096);
    }
}

TEST_F(ConsoleTest, BrokenAndHostileFramesHarmNobodyEvenOnAFullDisk)
{
    start("-log /dev/full -trace /dev/full");
    const Peer steady(m_port);
    ASSERT_EQ(steady.logIn().result, Done);
    const std::string requests[] = {
        frame(Login, joinFields({"alice", kPassword})), frame(Who, ""), frame(Get, joinFields({"hostname"})),
        frame(Event, joinFields({"e", "d"})), frame(protocol::Run, joinFields({"date"}))};
    for (const std::string& whole : requests) {
        for (std::size_t cut = 1; cut < whole.size(); ++cut)
            Peer(m_port).send(std::string_view(whole).substr(0, cut)); // and vanishes
        const Peer peer(m_port);
        peer.logIn();
        peer.send(std::string_view(whole).substr(0, whole.size() - 1)); // with a login open
    }
    inParallel(4, [&](unsigned seed) {
        std::mt19937 random(seed);
        for (int i = 0; i < 25'000 / kScale; ++i) {
            std::string bytes(1 + random() % 64, '\0');
            for (char& byte : bytes)
                byte = static_cast<char>(random());
            if (i % 2 == 0)
                bytes.replace(0, 5, std::string("\0\1\0\0\0", 5)); // further in
            const Peer peer(m_port);
            peer.send(bytes);
            peer.finish();
        }
    });
    EXPECT_EQ(steady.ask(Who).result, Done);
    EXPECT_TRUE(eventually([&] { return sessions(steady) == 1; }));
    EXPECT_EQ(Peer(m_port).logIn().result, Done);
}

TEST_F(ConsoleTest, WithoutDescriptorsClientsAreRefusedAndNothingSpins)
{
    start("", 24);
    std::vector<Peer> peers;
    int refused = 0;
    for (int i = 0; i < 40; ++i) {
        const int result = peers.emplace_back(m_port).ask(Who).result;
        EXPECT_TRUE(result == NotLoggedIn || result == Busy || result == -1) << result;
        refused += result != NotLoggedIn ? 1 : 0;
    }
    EXPECT_GT(refused, 10);
    const long before = std::stol(ofProcess("schedstat")); // nanoseconds of the main thread
    std::this_thread::sleep_for(1s);
    EXPECT_LT(std::stol(ofProcess("schedstat")) - before, 500'000'000);
    peers.clear();
    EXPECT_TRUE(
        eventually([&] { return count("fd") < 16; })); // a sanitizer takes lacking ones for a broken object
    EXPECT_EQ(Peer(m_port).logIn().result, Done);
}

TEST_F(ConsoleTest, ClientThatOwesARequestIsHungUp)
{
    start("-idle 1");
    const Peer silent(m_port), stalled(m_port), trickling(m_port);
    ASSERT_EQ(silent.logIn().result, Done);
    stalled.send(std::string_view("\0\1\0", 3)); // half a header, which a blocked receive waits for
    const std::jthread trickle([&] {
        for (int i = 0; i < 12; ++i) { // always in time for the next byte, never for the request
            trickling.send(
                std::string_view("\0\1\0\0\1\0\0\0\0\0\0\0", 12).substr(static_cast<std::size_t>(i), 1));
            std::this_thread::sleep_for(400ms);
        }
    });
    for (const Peer* peer : {&silent, &stalled, &trickling})
        EXPECT_EQ(peer->receive().result, -1);
    EXPECT_TRUE(eventually([&] { return written("record").find("close ") != std::string::npos; }));
}

TEST_F(ConsoleTest, OneProgramRunsAtATimeAndTheNextAfterIt)
{
    start();
    const Peer first(m_port), second(m_port);
    ASSERT_EQ(first.logIn().result + second.logIn().result, Done);
    const long before = count("fd");
    Answer one, other;
    EXPECT_TRUE(eventually([&] { // run beside each other
        for (const Peer* peer : {&first, &second})
            peer->send(frame(protocol::Run, joinFields({"id"})));
        one = first.receive();
        other = second.receive();
        return one.result + other.result == Done + Busy;
    }));
    EXPECT_TRUE((one.result == Done ? one : other).text.starts_with("uid="));
    EXPECT_EQ(first.ask(protocol::Run, {"disk"}).result, Done);
    EXPECT_EQ(count("fd"), before);
}

TEST_F(ConsoleTest, OperatorSeesWhoIsInAndEndsASession)
{
    start("-log log");
    const Peer alice = loggedIn(m_port), other = loggedIn(m_port, "user1");
    ::kill(m_pid, SIGUSR1);
    const char* const line = "consoled - session \\d+: \"(alice|user1)\" from 127\\.0\\.0\\.1 since \\d\\d/";
    EXPECT_TRUE(eventually([&] { return countIn("log", line) == 2; })) << written("log");
    ::sigqueue(m_pid, SIGUSR2, {.sival_int = 1});
    EXPECT_EQ(alice.receive().result, -1);
    ::kill(m_pid, SIGUSR2); // names none
    EXPECT_TRUE(eventually([&] { return countIn("log", "session -1: there is none\n") == 1; }));
    EXPECT_EQ(countIn("log", "session 1: ended"), 1);
    EXPECT_EQ(other.ask(Who).result, Done);
}

TEST_F(ConsoleTest, StartsOnlyWithOptionsAndAServiceThatItKnows)
{
    const std::pair<const char*, int> starts[] = {{"-service TEST -idle 0", 2},
                                                  {"-lgo x", 2},
                                                  {"-service tset", 1},
                                                  {"-service ../test", 1},
                                                  {"-help", 0}};
    for (const auto& [options, status] : starts) {
        launch(options);
        EXPECT_EQ(wait(), status << 8) << options;
    }
    EXPECT_NE(written("stdout").find("256 properties"), std::string::npos);
    start("-service TEST");
}

TEST_F(ConsoleTest, TerminationClosesEverySession)
{
    start("-log log");
    std::vector<Peer> peers;
    for (std::size_t i = 0; i < 10; ++i) {
        ASSERT_EQ(peers.emplace_back(m_port).logIn().result, Done);
        peers.back().send(std::string_view("\0\1\0", i % 4));
    }
    peers.front().send(frame(protocol::Run, joinFields({"id"})));
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(countIn("record", "close "), 10);
    EXPECT_TRUE(written("log").ends_with("consoled - stopped\n"));
}

} // namespace
