// SPDX-License-Identifier: BSD-3-Clause
#include "AUtil.h"
#include "CommandLine.h"
#include "Compare.h"
#include "SystemExec.h"

#include <array>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

// The runner's child waits a second before it runs its program. Nobody measures that.
extern "C" __attribute__((visibility("default"))) unsigned int sleep(unsigned int)
{
    return 0;
}

namespace {

void randomKey(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(AUtil::generateRandomKey());
}

void readDevice(benchmark::State& state)
{
    for (auto _ : state) {
        std::array<std::uint32_t, 4> words;
        const int device = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
        for (std::uint32_t& word : words)
            benchmark::DoNotOptimize(::read(device, &word, sizeof word));
        benchmark::DoNotOptimize(words);
        ::close(device);
    }
}

/// 200 options, every second one with two values.
std::vector<char*> manyOptions()
{
    static std::vector<std::string> s_words;
    if (s_words.empty()) {
        s_words.emplace_back("prog");
        for (int i = 0; i < 200; ++i) {
            s_words.push_back("-an-option-" + std::to_string(i));
            if (i % 2 == 0)
                s_words.insert(s_words.end(), {"value", "another"});
        }
    }
    std::vector<char*> arguments;
    for (std::string& word : s_words)
        arguments.push_back(word.data());
    return arguments;
}

void commandLine(benchmark::State& state)
{
    std::vector<char*> arguments = manyOptions();
    for (auto _ : state) {
        CommandLine line(static_cast<int>(arguments.size()), arguments.data());
        benchmark::DoNotOptimize(line);
    }
}

void splitIntoVectors(benchmark::State& state)
{
    const std::vector<char*> arguments = manyOptions();
    for (auto _ : state) {
        std::vector<std::pair<std::string, std::vector<const char*>>> options;
        for (const char* argument : arguments) {
            if (*argument == '-')
                options.emplace_back(argument + 1, std::vector<const char*>());
            else if (!options.empty())
                options.back().second.push_back(argument);
        }
        benchmark::DoNotOptimize(options);
    }
}

constexpr std::size_t kSmall = 16U << 20;
constexpr std::size_t kLarge = 1U << 30;

/// Memory that the process has touched, as a large daemon has.
using Ballast = std::unique_ptr<char[]>;

Ballast ballast(std::size_t bytes)
{
    Ballast memory(new char[bytes]);
    std::memset(memory.get(), 1, bytes);
    return memory;
}

class ChildrenBlocked {
public:
    ChildrenBlocked()
    {
        sigset_t ended;
        sigemptyset(&ended);
        sigaddset(&ended, SIGCHLD);
        pthread_sigmask(SIG_BLOCK, &ended, &m_saved);
    }
    ~ChildrenBlocked()
    {
        std::signal(SIGCHLD, SIG_IGN); // whatever still waits is gone
        pthread_sigmask(SIG_SETMASK, &m_saved, nullptr);
        std::signal(SIGCHLD, SIG_DFL);
    }
    ChildrenBlocked(const ChildrenBlocked&) = delete;
    ChildrenBlocked& operator=(const ChildrenBlocked&) = delete;

private:
    sigset_t m_saved{};
};

Body execute(std::size_t resident)
{
    return [resident](benchmark::State& state) {
        const Ballast memory = ballast(resident);
        const ChildrenBlocked blocked;
        SystemExec runner;
        std::string program = "true";
        runner.setCommand(program);
        for (auto _ : state) {
            runner.execute();
            state.PauseTiming();
            signalHandler(SIGCHLD); // closes the pipes and reaps the child
            state.ResumeTiming();
        }
    };
}

Body forkWithPipes(std::size_t resident)
{
    return [resident](benchmark::State& state) {
        const Ballast memory = ballast(resident);
        const ChildrenBlocked blocked;
        for (auto _ : state) {
            std::array<std::array<int, 2>, 3> pipes{};
            for (auto& ends : pipes)
                benchmark::DoNotOptimize(::pipe2(ends.data(), O_CLOEXEC));
            const pid_t child = ::fork();
            if (child == 0) {
                ::dup2(pipes[0][0], 0);
                ::dup2(pipes[1][1], 1);
                ::dup2(pipes[2][1], 2);
                ::execlp("true", "true", nullptr);
                ::_exit(1);
            }
            ::close(pipes[0][0]);
            ::close(pipes[1][1]);
            ::close(pipes[2][1]);
            state.PauseTiming();
            ::close(pipes[0][1]);
            ::close(pipes[1][0]);
            ::close(pipes[2][0]);
            ::waitpid(child, nullptr, 0);
            state.ResumeTiming();
        }
    };
}

const char* const kTrue[] = {"true", nullptr};

/// With three pipes, all of which are read to their end, and waited for.
void spawnWithPipes(benchmark::State& state)
{
    const Ballast memory = ballast(kSmall);
    for (auto _ : state) {
        std::array<std::array<int, 2>, 3> pipes{};
        for (auto& ends : pipes)
            benchmark::DoNotOptimize(::pipe2(ends.data(), O_CLOEXEC));
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pipes[0][0], 0);
        posix_spawn_file_actions_adddup2(&actions, pipes[1][1], 1);
        posix_spawn_file_actions_adddup2(&actions, pipes[2][1], 2);
        pid_t child = -1;
        ::posix_spawnp(&child, kTrue[0], &actions, nullptr, const_cast<char* const*>(kTrue), environ);
        posix_spawn_file_actions_destroy(&actions);
        for (const int end : {pipes[0][0], pipes[0][1], pipes[1][1], pipes[2][1]})
            ::close(end);
        for (const int end : {pipes[1][0], pipes[2][0]}) {
            char text[64];
            while (::read(end, text, sizeof text) > 0) {
            }
            ::close(end);
        }
        ::waitpid(child, nullptr, 0);
    }
}

Body runProgram(std::size_t resident)
{
    return [resident](benchmark::State& state) {
        const Ballast memory = ballast(resident);
        SystemExec::Job job;
        job.args = kTrue;
        SystemExec::Result result;
        for (auto _ : state)
            benchmark::DoNotOptimize(SystemExec::run(job, result));
    };
}

} // namespace

void registerUtilComparisons()
{
    compare({"generateRandomKey", "open + four reads + close of the device", 1.20}, randomKey, readDevice);
    compare({"CommandLine over 200 options", "the same split into vectors", 1.20}, commandLine,
            splitIntoVectors);
    compare({"SystemExec::execute, 16 MiB resident", "pipes + fork", 1.05}, execute(kSmall),
            forkWithPipes(kSmall));
    compare({"SystemExec::execute, 1 GiB resident", "pipes + fork", 1.05}, execute(kLarge),
            forkWithPipes(kLarge));
    compare({"SystemExec::run, 16 MiB resident", "pipes + posix_spawn", 1.05}, runProgram(kSmall),
            spawnWithPipes);
    compare({"SystemExec::run, 1 GiB resident", "the same with 16 MiB", 1.10}, runProgram(kLarge),
            runProgram(kSmall));
}
