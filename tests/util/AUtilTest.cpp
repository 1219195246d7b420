#include "AUtil.h"

#include <gtest/gtest.h>
#include <set>
#include <sys/resource.h>

// The address sanitizer sees a string that is released twice, wrongly or not at all.
TEST(AUtilTest, StringsAreOwnedAsDescribed)
{
    EXPECT_EQ(AUtil::getEnv("PATH", "default"), std::getenv("PATH"));
    EXPECT_EQ(AUtil::getEnv("GORV_NOT_SET", nullptr), nullptr);
    const std::unique_ptr<char, decltype(&std::free)> copy(AUtil::getEnv("GORV_NOT_SET", "default"),
                                                           std::free);
    EXPECT_STREQ(copy.get(), "default");

    std::vector<char*> strings = {new char('a'), nullptr, static_cast<char*>(::operator new(100))};
    std::vector<const char*> constants = {nullptr, new const char('b')};
    AUtil::clearStringArray(strings);
    AUtil::clearStringArray(constants);
    EXPECT_TRUE(strings.empty() && constants.empty());
}

TEST(AUtilTest, KeysDifferWithAndWithoutTheDevice)
{
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit noFiles = {0, limit.rlim_max};
    for (const bool device : {false, true}) {
        std::set<std::string> groups;
        ::setrlimit(RLIMIT_NOFILE, device ? &limit : &noFiles);
        for (int i = 0; i < 50; ++i) {
            const std::string key = AUtil::generateRandomKey();
            EXPECT_TRUE(key.size() == 32 && key.find_first_not_of("0123456789abcdef") == key.npos) << key;
            groups.insert(key.substr(24));
        }
        EXPECT_EQ(groups.size(), 50U);
        EXPECT_EQ(*groups.rbegin() > "8", device); // rand() leaves the first bit of a group clear
    }
}
