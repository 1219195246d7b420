// SPDX-License-Identifier: BSD-3-Clause
#include "PAMHelper.h"
#include "support/Files.h"
#include "support/ProcessMemory.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <unistd.h>

namespace {

/// The system's own module, which stands beside libpam.
std::string pamUnix()
{
    Dl_info library{};
    ::dladdr(reinterpret_cast<const void*>(&::pam_strerror), &library);
    return std::filesystem::path(library.dli_fname).parent_path() / "security/pam_unix.so";
}

/// While it lives, the process has a root of its own with the accounts of one user.
class OwnRoot {
public:
    OwnRoot()
    {
        std::filesystem::create_directory(m_root.path("etc"));
        std::filesystem::create_directory(m_root.path("etc/pam.d"));
        std::ofstream(m_root.path("etc/passwd")) << "dinah:x:1000:1000::/:/bin/sh\n";
        std::ofstream(m_root.path("etc/shadow")) << "dinah:" << kHash << ":0:0:99999:7:::\n";
        std::ofstream service(m_root.path("etc/pam.d/test"));
        for (const char* type : {"auth", "account", "password", "session"})
            service << type << " required " << pamUnix() << " nodelay sha512\n";
        service.close();
        EXPECT_EQ(::chroot(m_root.path().c_str()), 0);
    }
    ~OwnRoot()
    {
        EXPECT_EQ(::fchdir(m_before), 0);
        EXPECT_EQ(::chroot("."), 0);
        ::close(m_before);
    }

private:
    static constexpr const char* kHash = // "through the looking-glass and what she found"
        "$6$wonder$MuChsXGIWeOUkpaBHTgw6GsQkIQomrj6QAHkAkYxcnSZ/Sp55fICrfdfAMPV8IxQKPV0fvP5WqgAhfiwXpATo.";
    const int m_before = ::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
    const TempDir m_root;
};

int statusOf(
    const std::string& password, const std::function<void(PAMHelper&)>& then = [](PAMHelper&) {})
{
    auto* const helper = new PAMHelper(nullptr, nullptr);
    std::string service = "test", user = "dinah", secret = password;
    bool skip = false;
    const int status = helper->authenticate(service, user, secret, skip);
    OPENSSL_cleanse(secret.data(), secret.size());
    then(*helper);
    helper->dispose();
    return status;
}

TEST(PAMHelperUnixTest, ExpiredPasswordIsChangedByWhoKnowsItAndNoCopyIsLeft)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "pam_unix changes a password for root only";
    ASSERT_NE(::dlopen(pamUnix().c_str(), RTLD_NOW), nullptr) << ::dlerror(); // the other root has none
    const ProcessMemory::Secret secret("through the looking-glass and what she found"),
        newSecret("what Alice found there is nobody's business");
    std::string password = secret.text(), next = newSecret.text();
    {
        const OwnRoot root;
        const std::string before = readFile("/etc/shadow");
        const auto change = [&](PAMHelper& helper) {
            EXPECT_NE(helper.changePassword("not the password", next), PAM_SUCCESS);
            EXPECT_NE(helper.changePassword(password, ""), PAM_SUCCESS);
            EXPECT_NE(helper.changePassword(password, password), PAM_SUCCESS);
            EXPECT_EQ(readFile("/etc/shadow"), before);
            EXPECT_EQ(helper.getAuthResult(), PAM_NEW_AUTHTOK_REQD);
            EXPECT_EQ(helper.changePassword(password, next), PAM_SUCCESS);
            EXPECT_TRUE(helper.startSession());
        };
        EXPECT_EQ(statusOf(password, change), PAM_NEW_AUTHTOK_REQD);
        EXPECT_EQ(statusOf(next), PAM_SUCCESS);
        EXPECT_EQ(statusOf(password), PAM_AUTH_ERR);
    }
    OPENSSL_cleanse(password.data(), password.size());
    OPENSSL_cleanse(next.data(), next.size());
    for (const auto* each : {&secret, &newSecret}) { // a sanitizer's own memory is searched in vain
        EXPECT_FALSE(ProcessMemory::canBeSearched() && ProcessMemory::holds(*each));
    }
}

} // namespace
