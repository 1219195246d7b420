// SPDX-License-Identifier: BSD-3-Clause
#include "AUtil.h"

#include <gtest/gtest.h>

// The address sanitizer sees a string that is released twice, wrongly or not at all.
TEST(AUtilTest, StringsAreOwnedAsDescribed)
{
    EXPECT_EQ(AUtil::getEnv("PATH", "default"), std::getenv("PATH"));
    EXPECT_EQ(AUtil::getEnv("GORV_NOT_SET", nullptr), nullptr);
    EXPECT_EQ(AUtil::getEnv(nullptr, nullptr), nullptr);
    char* copy = AUtil::getEnv("GORV_NOT_SET", "default");
    EXPECT_STREQ(copy, "default");
    std::free(copy);
    std::vector<char*> strings = {new char('a'), nullptr, static_cast<char*>(::operator new(100))};
    std::vector<const char*> constants = {nullptr, new const char('b')};
    AUtil::clearStringArray(strings);
    AUtil::clearStringArray(constants);
    EXPECT_EQ(strings.size() + constants.size(), 0U);
}
