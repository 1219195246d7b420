// SPDX-License-Identifier: BSD-3-Clause
#include "CommandLine.h"

#include <gtest/gtest.h>

TEST(CommandLineTest, NumberKeepsItsDefaultUnlessOneIsGivenAndWithinItsLimits)
{
    const char* words[] = {"program", "-high", "65536", "-none", "-5", "-"};
    CommandLine line(std::size(words), const_cast<char**>(words));
    int number = 50;
    for (const char* name : {"none", "absent", static_cast<const char*>(nullptr)})
        EXPECT_TRUE(line.getInt(name, 1, 65535, number));
    EXPECT_FALSE(line.getInt("high", 1, 65535, number));
    EXPECT_EQ(number, 50);
    EXPECT_STREQ(line.getUnknown({nullptr, "hig", "highs"}), "high");
    EXPECT_STREQ(line.getUnknown({"high", "none", "5"}), ""); // of the last
}

TEST(CommandLineTest, ArgumentsEndWithTheCountOrANullPointer)
{
    const char* words[] = {"-first", nullptr, "-second"};
    EXPECT_FALSE(CommandLine(3, const_cast<char**>(words)).hasArg("second"));
    EXPECT_FALSE(CommandLine(0, const_cast<char**>(words)).hasArg("first"));
    EXPECT_FALSE(CommandLine(1, nullptr).hasArg("first"));
}
