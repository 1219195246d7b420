// SPDX-License-Identifier: BSD-3-Clause
#include "GorvVersion.h"
#include "NumberFormatException.h"

#include <gtest/gtest.h>

#pragma GCC diagnostic ignored "-Wformat" // a format that can't be checked

TEST(ExceptionTest, CarryTheirMessageToTheHandlerOfTheRootAndCutItBeyond4095Characters)
{
    const std::string longest(4095, 'm');
    EXPECT_EQ(Exception().getMessage(), "");
    EXPECT_EQ(NumberFormatException().getMessage(), "");
    EXPECT_EQ(Exception("%s", longest.c_str()).getMessage(), longest);
    try {
        throw NumberFormatException("%s!", longest.c_str());
    } catch (const Exception& failure) {
        EXPECT_EQ(failure.getMessage(), longest);
    }
}

TEST(ExceptionTest, EndAtAnArgumentThatCannotBeFormatted)
{
    const wchar_t none[] = {0x7FFFFFFF, 0};
    EXPECT_EQ(Exception("before %ls after", none).getMessage(), "before ");
}

TEST(GorvVersionTest, IsThatOfTheHeader)
{
    EXPECT_EQ(gorvVersion(), GORV_VERSION);
}
