// SPDX-License-Identifier: BSD-3-Clause
#include "Compare.h"
#include "EmbeddedPam.h"
#include "PAMHelper.h"

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace {

/// A stack whose modules do nothing: what is left is the cost of the calls.
class TrivialStack {
public:
    TrivialStack()
    {
        std::filesystem::create_directories(m_folder);
        std::ofstream service(m_folder + "/bench");
        for (const char* type : {"auth", "account", "session"})
            service << type << " required pam_permit.so\n";
        std::ofstream(m_folder + "/other") << "auth required pam_deny.so\n";
        useServiceFilesIn(m_folder.c_str());
    }
    ~TrivialStack()
    {
        useServiceFilesIn(nullptr);
        std::filesystem::remove_all(m_folder);
    }
    TrivialStack(const TrivialStack&) = delete;
    TrivialStack& operator=(const TrivialStack&) = delete;

private:
    std::string m_folder =
        std::filesystem::temp_directory_path() / ("gorv_bench." + std::to_string(::getpid()));
};

/// As large as a helper: what else a look-up touches costs the same on both sides.
struct Login {
    char before[32];
    int id = 0;
    char after[sizeof(PAMHelper) - 36];
};

/// Logins registered with the library and, side by side in memory, the same map without it.
class Registered {
public:
    explicit Registered(int count)
    {
        for (int i = 0; i < count; ++i) {
            m_ids.push_back("session-" + std::to_string(i * 7919LL % 1'000'003));
            m_helpers.push_back(std::make_unique<PAMHelper>(nullptr, nullptr));
            m_helpers.back()->setSessionId(m_ids.back());
            m_logins.push_back(std::make_unique<Login>());
            m_map[m_ids.back()] = m_logins.back().get();
        }
    }

    const std::vector<std::string>& ids() const { return m_ids; }
    const std::map<std::string, Login*>& map() const { return m_map; }

private:
    std::vector<std::string> m_ids;
    std::vector<std::unique_ptr<PAMHelper>> m_helpers;
    std::vector<std::unique_ptr<Login>> m_logins;
    std::map<std::string, Login*> m_map;
};

/// The logins of the comparison that runs: built once, so that both sides meet the same memory.
const Registered& registered(int count)
{
    static std::unique_ptr<Registered> s_registered;
    static int s_count = 0;
    if (s_count != count) {
        s_registered.reset();
        s_registered = std::make_unique<Registered>(count);
        s_count = count;
    }
    return *s_registered;
}

Body lookUp(int count)
{
    return [count](benchmark::State& state) {
        const std::vector<std::string>& ids = registered(count).ids();
        std::size_t next = 0;
        for (auto _ : state) {
            benchmark::DoNotOptimize(PAMHelper::instanceForSessionId(ids[next]));
            next = (next + 17) % ids.size();
        }
    };
}

Body lookUpInMap(int count)
{
    return [count](benchmark::State& state) {
        const std::map<std::string, Login*>& map = registered(count).map();
        std::recursive_mutex mutex;
        const std::vector<std::string>& ids = registered(count).ids();
        std::size_t next = 0;
        for (auto _ : state) {
            const std::lock_guard<std::recursive_mutex> lock(mutex);
            const auto entry = map.find(ids[next]);
            benchmark::DoNotOptimize(entry == map.end() ? nullptr : entry->second);
            next = (next + 17) % ids.size();
        }
    };
}

Body walk(int count)
{
    return [count](benchmark::State& state) {
        registered(count);
        for (auto _ : state)
            benchmark::DoNotOptimize(PAMHelper::instanceForKEPId(1));
    };
}

Body bareWalk(int count)
{
    return [count](benchmark::State& state) {
        const std::map<std::string, Login*>& map = registered(count).map();
        for (auto _ : state) {
            Login* found = nullptr;
            for (const auto& [id, login] : map) {
                if (login->id == 1) {
                    found = login;
                    break;
                }
            }
            benchmark::DoNotOptimize(found);
        }
    };
}

void wholeLogin(benchmark::State& state)
{
    const TrivialStack stack;
    std::string service = "bench", user = "root", password = "secret";
    bool skip = false;
    for (auto _ : state) {
        auto* helper = new PAMHelper("10.0.0.9", "10.0.0.1");
        helper->authenticate(service, user, password, skip);
        if (!helper->startSession())
            state.SkipWithError("no session");
        helper->dispose();
    }
}

int refuseToTalk(int, const pam_message**, pam_response**, void*)
{
    return PAM_CONV_ERR;
}

void barePam(benchmark::State& state)
{
    const TrivialStack stack;
    const pam_conv conversation = {refuseToTalk, nullptr};
    for (auto _ : state) {
        pam_handle_t* handle = nullptr;
        pam_start("bench", "root", &conversation, &handle);
        pam_set_item(handle, PAM_RHOST, "10.0.0.9");
        pam_putenv(handle, "INTERFACE_IP=10.0.0.1");
        pam_authenticate(handle, 0);
        pam_acct_mgmt(handle, 0);
        pam_open_session(handle, 0);
        benchmark::DoNotOptimize(pam_getenv(handle, "SESSION_ID"));
        pam_end(handle, pam_close_session(handle, 0));
    }
}

} // namespace

void registerAuthComparisons()
{
    compare({"instanceForSessionId among 100", "std::map under a recursive mutex", 1.15}, lookUp(100),
            lookUpInMap(100));
    compare({"instanceForSessionId among 100,000", "std::map under a recursive mutex", 1.10}, lookUp(100'000),
            lookUpInMap(100'000));
    compare({"instanceForKEPId among 100", "the walk it must do", 1.20}, walk(100), bareWalk(100));
    compare({"instanceForKEPId among 10,000", "the walk it must do", 1.20}, walk(10'000), bareWalk(10'000));
    compare({"a whole login on a trivial stack", "the same bare libpam calls", 1.05}, wholeLogin, barePam);
}
