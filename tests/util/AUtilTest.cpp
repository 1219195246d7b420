#include "AUtil.h"

#include <gtest/gtest.h>
#include <set>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

static bool s_readsAreShort = false;

// The library's call ends here.
extern "C" __attribute__((visibility("default"))) ssize_t read(int file, void* buffer, size_t size) {
    return s_readsAreShort ? 3 : ::syscall(SYS_read, file, buffer, size);
}

// The address sanitizer sees a string that is released twice, wrongly or not at all.
TEST(AUtilTest, StringsAreOwnedAsDescribed) {
    EXPECT_EQ(AUtil::getEnv("PATH", "default"), std::getenv("PATH"));
    EXPECT_EQ(AUtil::getEnv("GORV_NOT_SET", nullptr), nullptr);
    char* copy = AUtil::getEnv("GORV_NOT_SET", "default");
    EXPECT_STREQ(copy, "default");
    std::free(copy);
    std::vector<char*> strings = {new char('a'), nullptr, static_cast<char*>(::operator new(100))};
    std::vector<const char*> constants = {nullptr, new const char('b')};
    AUtil::clearStringArray(strings);
    AUtil::clearStringArray(constants);
    EXPECT_TRUE(strings.empty() && constants.empty());
}

TEST(AUtilTest, KeysDifferWithAndWithoutTheDevice) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    for (const std::string device : {"absent", "short", "whole"}) {
        s_readsAreShort = device == "short";
        const rlimit files = {device == "absent" ? 0 : limit.rlim_cur, limit.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &files);
        std::set<std::string> groups;
        for (int i = 0; i < 50; ++i) {
            const std::string key = AUtil::generateRandomKey();
            EXPECT_TRUE(key.size() == 32 && key.find_first_not_of("0123456789abcdef") == key.npos) << key;
            groups.insert(key.substr(24));
        }
        EXPECT_EQ(groups.size(), 50U) << device;
        EXPECT_EQ(*groups.rbegin() > "8", device == "whole"); // rand() leaves the first bit of a group clear
    }
}
