// SPDX-License-Identifier: BSD-3-Clause
// What strangers, and users who mean no good, can do to the daemon: as much as a number says, and no more.

#include "AComponentLog.h"
#include "Admission.h"
#include "Daemon.h"
#include "Programs.h"

#include <fcntl.h>

namespace {

using Clock = std::chrono::steady_clock;

/// How many pieces of the text, of eight characters each, are in the memory of the process.
int piecesIn(const std::string& process, std::string_view text)
{
    int found = 0;
    ProcessMemory::visit(process, [&](const std::vector<char>& bytes) {
        const std::string_view memory(bytes.data(), bytes.size());
        for (std::size_t i = 0; i + 8 <= text.size(); ++i)
            found += memory.find(text.substr(i, 8)) != std::string_view::npos ? 1 : 0;
    });
    return found;
}

long secondsSince(Clock::time_point begin)
{
    return std::chrono::ceil<std::chrono::seconds>(Clock::now() - begin).count();
}

class ConsoleTestAttack : public ConsoleTest {
protected:
    void addToStack(const char* line) { std::ofstream(m_dir.path("test"), std::ios::app) << line << '\n'; }
};

TEST_F(ConsoleTestAttack, SilentConnectionsLeaveRoomAndHardlyALine)
{
    start("-log log -trace trace -level 9");
    std::vector<Peer> silent;
    for (int i = 0; i < 600; ++i)
        silent.emplace_back(m_port);
    EXPECT_LT(written("log").size() + written("trace").size(), 1000u);
    const int logins = 3000 / kScale;
    int served = 0;
    for (int i = 0; i < logins; ++i)
        served += Peer(m_port).logIn(userOf(i)).result == Done ? 1 : 0;
    EXPECT_EQ(served, logins);
    EXPECT_LE(count("fd"), 522);
    EXPECT_EQ(stop(), 0);
    EXPECT_GE(countIn("log", "\\d\\d+ gave way"), 1);
}

TEST_F(ConsoleTestAttack, WrongPasswordsThatTakeTimeHoldUpNobodyElse)
{
    addToStack("auth optional pam_faildelay.so delay=2000000");
    start();
    const Peer user = loggedIn(m_port);
    const auto begin = Clock::now();
    std::vector<Peer> peers;
    for (int i = 0; i < 600; ++i)
        peers.emplace_back(m_port).send(frame(Login, joinFields({"alice", "looking-glass"})));
    int served = 0;
    for (int i = 0; i < 20; ++i)
        served += user.ask(Call, {"console_sessions", ""}).text == "1" && user.ask(Who).result == Done &&
                          user.ask(Set, {"motto", "calm"}).result + user.ask(Get, {"motto"}).result == Done
                      ? 1
                      : 0;
    EXPECT_EQ(served, 20);
    EXPECT_EQ(stop(), 0);
    EXPECT_LE(countIn("record", "authenticate "), 12 + secondsSince(begin)); // the others are turned away
}

TEST_F(ConsoleTestAttack, GuessesAreSlowedDownAndNamed)
{
    start("-log log");
    const auto begin = Clock::now();
    const std::string as[] = {frame(Login, joinFields({"alice", "looking-glass"})),
                              frame(Login, joinFields({"9 \"as \u009bx", "looking-glass"}))};
    std::string logins[2];
    for (int i = 0; i < 100; ++i) {
        logins[0] += as[i % 2];
        logins[1] += as[(i + 1) % 2];
    }
    std::vector<Peer> peers;
    for (int i = 0; i < 24; ++i)
        peers.emplace_back(m_port).send(logins[i % 2]);
    std::this_thread::sleep_for(1500ms);
    EXPECT_TRUE(eventually([&] { return countIn("record", "authenticate ") > 5; }));
    EXPECT_EQ(stop(), 0);
    const long seconds = secondsSince(begin), guesses = countIn("record", "authenticate ");
    EXPECT_LE(guesses, 11 + seconds);
    EXPECT_GE(countIn("log", "refused \\d+ from 127.0.0.1, \\d+ as \"(alice\", \\d+|9 .as ..x\", \\d+) as"),
              1);
    EXPECT_GE(countIn("log", " \\d\\d turned away"), 1); // at most three of each connection
    EXPECT_LT(countIn("log", "\n"), 8 + seconds);
}

TEST_F(ConsoleTestAttack, LogIsPrivateAndFollowsNoLinkAndIsReopened)
{
    std::ofstream(m_dir.path("precious")) << "kept";
    std::filesystem::create_symlink("precious", m_dir.path("link"));
    for (const char* options : {"-log link", "-trace link", "-log no/folder", "-trace no/folder"}) {
        launch(options);
        EXPECT_EQ(wait(), 1 << 8) << options;
    }
    EXPECT_EQ(written("precious"), "kept");

    start("-log log -trace trace");
    std::filesystem::rename(m_dir.path("log"), m_dir.path("log.1"));
    std::filesystem::rename(m_dir.path("trace"), m_dir.path("trace.1"));
    ::kill(m_pid, SIGHUP);
    ASSERT_TRUE(eventually([&] { return std::filesystem::exists(m_dir.path("trace")); }));
    EXPECT_EQ(Peer(m_port).logIn().result, Done);
    for (const char* file : {"log", "trace"}) {
        EXPECT_EQ(countIn(file, "\"alice\" logged in"), 1) << file;
        EXPECT_EQ(std::filesystem::status(m_dir.path(file)).permissions(),
                  std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    }
    EXPECT_EQ(countIn("log.1", "alice"), 0);
}

TEST_F(ConsoleTestAttack, ProgramHoldsNothingOfTheDaemon)
{
    start("-log log -trace trace");
    const Peer peer = loggedIn(m_port);
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(m_pid) + "/fdinfo")) {
        unsigned flags = 0;
        std::sscanf(readFile(entry.path()).c_str(), "pos: %*d flags: %o", &flags);
        EXPECT_TRUE(std::stoi(entry.path().filename()) <= 2 || (flags & O_CLOEXEC) != 0) << entry.path();
    }
    EXPECT_EQ(peer.ask(protocol::Run, {"id"}).result, Done);
    EXPECT_EQ(stop(), 0);
    start(); // on the same port, at once
    loggedIn(m_port);
}

TEST_F(ConsoleTestAttack, PasswordIsNowhereAfterTheLogin)
{
    if (!ProcessMemory::canBeSearched())
        GTEST_SKIP() << "the memory of a sanitizer is searched in vain";
    start("-log log -trace trace -level 9");
    const std::string daemon = std::to_string(m_pid);
    const std::tuple<const char*, std::string, const char*> logins[] = {
        {"bob", kPassphrase, "need not be changed"},
        {"carol", kPassphrase, "login refused"},
        {"dave", kPassphrase, "\nchanged\n"},
        {"alice", "x94Kfq!m0Z", "login refused"},
        {"nobody", std::string(100, 'q') + std::string(100, 'w'), "login refused"},
    };
    for (const auto& [user, password, outcome] : logins) {
        std::filesystem::remove(m_dir.path("client"));
        FILE* const client =
            ::popen(("cd '" + m_dir.path().string() + "'; echo $$ >pid; exec '" CONSOLE "' -port " +
                     std::to_string(m_port) + " -user " + user + " >client 2>&1")
                        .c_str(),
                    "w");
        std::fprintf(client, "%s\npasswd\n", password.c_str());
        for (int i = 0; i < 3; ++i)
            std::fprintf(client, "%s\n", password.c_str());
        std::fprintf(client, "set motto motto is no secret, and kept\n");
        std::fflush(client);
        EXPECT_TRUE(eventually([&, text = outcome] { return countIn("client", text) > 0; })) << user;
        if (outcome != std::string_view("login refused")) { // or the client has ended
            EXPECT_EQ(piecesIn(std::to_string(std::stoi(written("pid"))), password), 0) << "client, " << user;
        }
        EXPECT_EQ(piecesIn(daemon, password), 0) << "daemon, " << user;
        ::pclose(client);
        for (const char* file : {"log", "trace", "record", "stderr"})
            EXPECT_EQ(written(file).find(password), std::string::npos) << file;
    }
    EXPECT_EQ(countIn("log", "\"bob\" sets \"motto\": done"), 1);
    EXPECT_GT(piecesIn(daemon, "motto is no secret, and kept"), 0); // the search works
}

TEST_F(ConsoleTestAttack, PropertiesOfAUserAndOfAllAreBounded)
{
    start();
    const std::string value(3800, 'v');
    int made = 0;
    const int users = std::clamp(40 / kScale, 1, 9); // in the long form one more than there is room for
    for (int user = 0; user < users; ++user) {
        const Peer peer = loggedIn(m_port, userOf(user));
        for (int i = 0; i < limits::kUserProperties + 20; ++i) {
            const Answer answer = peer.ask(Set, {userOf(user) + "." + std::to_string(i), value});
            made += answer.result == Done ? 1 : 0;
            EXPECT_TRUE(answer.result == Done || answer.text == "no room for another property");
        }
        EXPECT_EQ(peer.ask(Set, {"user0.0", "changed"}).result, Done);
    }
    EXPECT_EQ(made, std::min(users * limits::kUserProperties, limits::kProperties));
    if (ProcessMemory::canBeSearched()) {
        const std::string status = ofProcess("status");
        EXPECT_LT(std::stol(status.substr(status.find("VmRSS:") + 6)), 32 * 1024) << made;
    }
}

TEST_F(ConsoleTestAttack, FloodOfAUserIsPacedAndEachDeedIsInTheLog)
{
    start("-log log -trace trace -level 9");
    const auto begin = Clock::now();
    const Peer peers[] = {loggedIn(m_port), loggedIn(m_port), loggedIn(m_port)};
    std::string flood;
    for (int i = 0; i < 400; ++i)
        flood += frame(Set, joinFields({"k", std::to_string(i)})) + frame(Call, joinFields({"no", ""})) +
                 frame(Get, joinFields({"missing" + std::to_string(i)}));
    inParallel(3, [&](unsigned i) { peers[i].send(flood); });
    ASSERT_TRUE(eventually([&] { return countIn("log", "sets \"k\": done\n") > 200; }));
    std::this_thread::sleep_for(2s);
    EXPECT_EQ(loggedIn(m_port, "user1").ask(Set, {"root", "x"}).result, Done);
    EXPECT_EQ(stop(), 0);
    const long sets = countIn("log", "\"alice\" sets \"k\": done\n"),
               calls = countIn("log", "\"alice\" calls \"no\": the call failed\n");
    EXPECT_LE(sets + calls, limits::kDeedsAtOnce + 10 * (1 + secondsSince(begin)));
    EXPECT_EQ(countIn("log", "\"user1\" sets \"root\": done\n"), 1);
    EXPECT_LE(countIn("log", "\n"), sets + calls + 15); // and hardly any other line
    EXPECT_EQ(written("stdout"), "consoled: listening on port " + std::to_string(m_port) + "\n");
}

TEST_F(ConsoleTestAttack, OneUserLeavesPlacesToOthers)
{
    start();
    std::vector<Peer> peers;
    for (int i = 0; i < limits::kUserSessions; ++i)
        peers.push_back(loggedIn(m_port));
    EXPECT_EQ(Peer(m_port).logIn().text, "no room for another session of yours");
    EXPECT_EQ(loggedIn(m_port, "user1").ask(Who).result, Done);
    peers.pop_back();
    loggedIn(m_port);
}

TEST_F(ConsoleTestAttack, StepThatHangsHoldsUpNeitherOthersNorTheEnd)
{
    for (const bool inPam : {false, true}) {
        std::filesystem::remove(m_dir.path("record"));
        addToStack(inPam ? "auth optional pam_faildelay.so delay=90000000"
                         : "auth optional [" GORV_UNKIND_MODULE "]");
        start("-log log");
        const Peer one = loggedIn(m_port), other = loggedIn(m_port, "user1"), guesser(m_port);
        if (inPam)
            guesser.send(frame(Login, joinFields({"alice", "looking-glass"})));
        else
            one.send(frame(Call, joinFields({"hang", ""})));
        for (int i = 0; i < 20; ++i)
            EXPECT_EQ(other.ask(Set, {"motto", "calm"}).result + other.ask(Get, {"motto"}).result, Done);
        ASSERT_TRUE(eventually([&] {
            return inPam ? countIn("record", "authenticate ") == 3 : countIn("stderr", "hangs\n") == 1;
        }));
        EXPECT_EQ(stop(), 0); // a kill would come before the step is over
        EXPECT_EQ(countIn("record", "close "), 2);
        EXPECT_EQ(countIn("log", "a session hangs"), 1);
    }
}

TEST_F(ConsoleTestAttack, ModuleThatExitsLeavesALineAndNotTheStatusOfASuccess)
{
    addToStack("auth optional [" GORV_UNKIND_MODULE "]");
    start("-log log");
    EXPECT_EQ(loggedIn(m_port).ask(Call, {"exit", ""}).result, -1);
    EXPECT_EQ(wait(), 1 << 8);
    EXPECT_EQ(countIn("log", "ended by exit\\(\\)"), 1);
}

TEST_F(ConsoleTestAttack, NamesLookLikeNothingElseInTheLog)
{
    start("-log log -trace trace -level 9");
    const Peer peer = loggedIn(m_port);
    const std::string name = "z: done 11/25/2026 04:34:47 consoled - 127.0.0.1:1: bob sets root\" x\u009b";
    for (const short operation : {Set, Event, Call})
        peer.ask(operation, {name, "v"});
    peer.ask(protocol::Run, {name});
    for (const char* file : {"log", "trace"}) {
        EXPECT_EQ(countIn(file, "\"alice\" \\w+ \"z: done[^\"\n]+root\\? x\\?\\?\": "), 4) << file;
        EXPECT_EQ(written(file).find('\xc2'), std::string::npos) << file;
    }
}

TEST_F(ConsoleTestAttack, RefusalsTellNothingByTheirTimeAndHoldNoPlace)
{
    start();
    std::vector<Peer> peers;
    const auto begin = Clock::now();
    for (int i = 0; i < limits::kRefusalsAtOnce; ++i) { // there are fewer places to log in
        peers.emplace_back(m_port).send(frame(Login, joinFields({i % 2 == 0 ? "alice" : "nobody", "wrong"})));
        ASSERT_TRUE(eventually([&] { return countIn("record", "authenticate ") == i + 1; }));
    }
    for (const Peer& peer : peers) {
        EXPECT_EQ(peer.receive(), (Answer{Refused, "login refused"}));
        EXPECT_GE(Clock::now() - begin, limits::kRefusalTime);
    }
    for (const int result : {int{Refused}, int{Refused}, -1}) // three are all that a connection has
        EXPECT_EQ(peers.front().logIn("nobody").result, result);
}

TEST_F(ConsoleTestAttack, LackOfDescriptorsIsNoRefusal)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer opens a pipe to look at an object's type";
#endif
    start("-log log", 40);
    std::vector<Peer> peers;
    peers.emplace_back(m_port).ask(Who);
    while (peers.size() < 60 && peers.emplace_back(m_port).ask(Who).result == NotLoggedIn) {
    }
    EXPECT_EQ(peers.front().logIn().text, "no login is possible at present");
    peers.erase(peers.begin() + 1, peers.end());
    EXPECT_TRUE(eventually([&] { return count("fd") < 16; }));
    EXPECT_EQ(peers.front().logIn().result, Done);
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(countIn("log", "refused"), 0);
}

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
    for (int i = 0; i < 12'000 / kScale; ++i) { // of addresses without end
        begin("10.1.0." + std::to_string(i), "alice");
        admission.endLogin(connection, Admission::Outcome::Refused, 0);
        admission.leave(connection);
    }
    for (const char* address : {"10.0.0.1", "10.0.0.2", "10.0.0.3"})
        for (int i = 0; i < 8; ++i)
            begin(address, "bob"); // and waits for his turn: two of the addresses hold all places
    EXPECT_FALSE(begin("10.0.0.4", "alice").isGranted);
    const auto turn = begin("10.0.0.1", "alice");
    EXPECT_TRUE(turn.isGranted);
    EXPECT_LE(turn.time, Clock::now());
    EXPECT_NE(admission.endLogin(connection, Admission::Outcome::Admitted, 2), nullptr);
    for (int i = 0; i < 2 * limits::kRefusalsAtOnce; ++i) { // her own address is slowed down for her name
        begin("10.0.0.1", "alice");
        admission.endLogin(connection, Admission::Outcome::Refused, 0);
    }
    EXPECT_GT(begin("10.0.0.1", "alice").time, Clock::now() + limits::kRefusalPace);
}

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
