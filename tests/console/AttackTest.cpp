// What strangers, and users who mean no good, can do to the daemon: as much as a number says, and no more.

#include "Daemon.h"
#include "Programs.h"

#include <fcntl.h>
#include <sys/stat.h>

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
    /// The one child of the daemon.
    pid_t child() const
    {
        int pid = 0;
        eventually([&] {
            for (const auto& task :
                 std::filesystem::directory_iterator("/proc/" + std::to_string(m_pid) + "/task"))
                std::sscanf(readFile(task.path() / "children").c_str(), "%d", &pid);
            return pid != 0;
        });
        return pid;
    }
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
        served += Peer(m_port).logIn().result == Done ? 1 : 0;
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
    std::string logins;
    for (int i = 0; i < 50; ++i)
        logins += frame(Login, joinFields({"alice", "looking-glass"})) +
                  frame(Login, joinFields({"9 \"as \u009bx", "looking-glass"}));
    std::vector<Peer> peers;
    for (int i = 0; i < 24; ++i)
        peers.emplace_back(m_port).send(logins);
    std::this_thread::sleep_for(1500ms);
    EXPECT_EQ(stop(), 0);
    const long seconds = secondsSince(begin), guesses = countIn("record", "authenticate ");
    EXPECT_GT(guesses, 5);
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
        EXPECT_EQ(countIn(file, "alice logged in"), 1) << file;
        EXPECT_EQ(std::filesystem::status(m_dir.path(file)).permissions(),
                  std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    }
    EXPECT_EQ(countIn("log.1", "alice"), 0);
}

TEST_F(ConsoleTestAttack, ProgramHoldsNothingOfTheDaemon)
{
    start("-log log -trace trace");
    const Peer peer = loggedIn(m_port);
    peer.send(frame(protocol::Run, joinFields({"id"})));
    const std::filesystem::path program = "/proc/" + std::to_string(child());
    std::error_code ignored;
    long foreign = -1;
    while (foreign != 0 && std::filesystem::read_symlink(program / "exe", ignored) ==
                               std::filesystem::read_symlink("/proc/" + std::to_string(m_pid) + "/exe")) {
        const std::filesystem::directory_iterator entries(program / "fd", ignored), end;
        foreign = std::count_if(entries, end, [&](const auto& entry) {
            return std::stoi(entry.path().filename()) > 2 && !std::filesystem::is_fifo(entry, ignored);
        });
    }
    EXPECT_LE(foreign, 0); // or it was too fast
    EXPECT_EQ(stop(), 0);
    start(); // on the same port, at once
    loggedIn(m_port);
}

TEST_F(ConsoleTestAttack, OutputThatNobodyReadsHoldsUpNothing)
{
    const std::string pipe = m_dir.path("pipe");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    const Descriptor reader(::open(pipe.c_str(), O_RDWR | O_CLOEXEC));
    start("-log log", 4096, ">pipe 2>&1");
    const Peer peer = loggedIn(m_port);
    int answered = 0;
    for (int i = 0; i < 400; ++i) // two lines of the library each
        answered += peer.ask(Call, {std::string(250, 'x'), ""}).result == Failed ? 1 : 0;
    EXPECT_EQ(answered, 400);
    EXPECT_EQ(peer.ask(protocol::Run, {"id"}).result, Done);
}

TEST_F(ConsoleTestAttack, PasswordIsNowhereAfterTheLogin)
{
    if (!ProcessMemory::canBeSearched() || isEmulated())
        GTEST_SKIP() << "the memory of a sanitizer or an emulator is searched in vain";
    start("-log log -trace trace -level 9");
    const std::string daemon = std::to_string(m_pid);
    const std::tuple<const char*, std::string, const char*> logins[] = {
        {"bob", kPassphrase, "logged in"},
        {"carol", kPassphrase, "login refused"},
        {"dave", kPassphrase, "must be changed"},
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
        std::fprintf(client, "%s\nset motto motto is no secret, and kept\n", password.c_str());
        std::fflush(client);
        EXPECT_TRUE(eventually([&, text = outcome] { return countIn("client", text) > 0; })) << user;
        EXPECT_EQ(piecesIn(std::to_string(std::stoi(written("pid"))), password), 0) << "client, " << user;
        EXPECT_EQ(piecesIn(daemon, password), 0) << "daemon, " << user;
        ::pclose(client);
        for (const char* file : {"log", "trace", "record", "stderr"})
            EXPECT_EQ(written(file).find(password), std::string::npos) << file;
    }
    EXPECT_EQ(countIn("log", "bob sets motto: done"), 1);
    EXPECT_GT(piecesIn(daemon, "motto is no secret, and kept"), 0); // the search works
}

TEST(ProgramsTest, NothingOfAProgramOutlivesItsTime)
{
    sigset_t childEnded;
    sigemptyset(&childEnded);
    sigaddset(&childEnded, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &childEnded, nullptr);
    const pid_t other = ::fork(); // of a PAM module, say
    if (other == 0)
        ::_exit(7);
    const auto run = [](int limitSeconds, const char* script, std::string& output) {
        return Programs({{"it", std::vector<std::string>{"/bin/sh", "-c", script}}}, limitSeconds)
            .run(
                "it", 4096, [] { return false; }, output);
    };
    std::string output;
    EXPECT_EQ(run(2, "exec >&- 2>&-; kill -STOP $$", output), Programs::Outcome::Failed);
    EXPECT_EQ(run(30, "sleep 99 & echo $! $(setsid sh -c 'echo $$; exec sleep 99 >&2' &)", output),
              Programs::Outcome::Finished);
    int left = 0, gone = 0;
    ASSERT_EQ(std::sscanf(output.c_str(), "%d %d", &left, &gone), 2) << output;
    const std::string leftOne = "/proc/" + std::to_string(left) + "/cmdline";
    for (int i = 0; i < 1000 && !readFile(leftOne).empty(); ++i)
        std::this_thread::sleep_for(10ms);
    EXPECT_EQ(readFile(leftOne), "");
    EXPECT_EQ(::kill(gone, SIGKILL), 0); // it has left the group, and lives on
    int status = -1;
    EXPECT_EQ(::waitpid(other, &status, 0), other); // nobody has taken it
    EXPECT_EQ(::waitpid(-1, &status, WNOHANG), -1);
}

} // namespace
