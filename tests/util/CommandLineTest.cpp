// SPDX-License-Identifier: BSD-3-Clause
#include "CommandLine.h"

#include <gtest/gtest.h>

TEST(CommandLineTest, OptionsAnswerWithTheirFirstValue)
{
    const char* words[] = {"program", "early", "-port",  "7578",  "7579",  "-empty",
                           "-port",   "1",     "-least", "0x1",   "-low",  "0",
                           "-most",   "65535", "-high",  "65536", "-word", "12k"};
    CommandLine line(std::size(words), const_cast<char**>(words));
    const std::tuple<const char*, bool, const char*, bool, int> cases[] = {
        {"port", true, "7578", true, 7578}, {"empty", true, "none", true, 50},
        {"early", false, "none", true, 50}, {nullptr, false, "none", true, 50},
        {"por", false, "none", true, 50},   {"least", true, "0x1", true, 1},
        {"low", true, "0", false, 50},      {"most", true, "65535", true, 65535},
        {"high", true, "65536", false, 50}, {"word", true, "12k", false, 50},
    };
    for (const auto& [name, isGiven, text, isFine, expectedNumber] : cases) {
        SCOPED_TRACE(text);
        int number = 50;
        EXPECT_EQ(line.hasArg(name), isGiven);
        EXPECT_STREQ(line.getArg(name, "none"), text);
        EXPECT_EQ(line.getInt(name, 1, 65535, number), isFine);
        EXPECT_EQ(number, expectedNumber);
    }
}

TEST(CommandLineTest, FirstOptionThatNobodyKnowsIsTold)
{
    const char* words[] = {"program", "early", "-port", "value", "-", "-5", "-port"};
    const CommandLine line(std::size(words), const_cast<char**>(words));
    EXPECT_STREQ(line.getUnknown({}), "port");
    EXPECT_STREQ(line.getUnknown({"por", "ports", "5", "", "-port", nullptr}), "port");
    EXPECT_STREQ(line.getUnknown({"5", nullptr, "port"}), "");
    EXPECT_STREQ(line.getUnknown({"port", ""}), "5");
    EXPECT_STREQ(line.getUnknown({"", "5", "port", "more"}), nullptr);
}

TEST(CommandLineTest, ArgumentsEndWithTheCountOrANullPointer)
{
    const char* words[] = {"-first", nullptr, "-second"};
    EXPECT_FALSE(CommandLine(3, const_cast<char**>(words)).hasArg("second"));
    EXPECT_FALSE(CommandLine(0, const_cast<char**>(words)).hasArg("first"));
    EXPECT_FALSE(CommandLine(1, nullptr).hasArg("first"));
}
