// SPDX-License-Identifier: BSD-3-Clause
#include "AInteger.h"
#include "NumberFormatException.h"

#include <climits>
#include <gtest/gtest.h>

TEST(AIntegerTest, ReadsTheNumberThatATextBeginsWithOrHandsTheTextOverAsData)
{
    std::string numbers;
    for (const char* text :
         {"\t\n\v\f\r +058", "-0B1012", "0XaFz", "0x", "08", "-2147483649", "9223372036854775808"})
        numbers += std::to_string(AInteger::parseInt(text)) + " ";
    EXPECT_EQ(AInteger::toString(AInteger(INT_MIN).getValue()), "-2147483648");
    EXPECT_EQ(numbers, "5 -5 175 0 0 2147483647 -1 "); // beyond 64 bits: the low half of the limit
    for (const char* text : {"", "- 1", "+-1", "x12", "%s%n", "\xa0\x31"}) {
        try {
            ADD_FAILURE() << text << " is " << AInteger::parseInt(text);
        } catch (const NumberFormatException& failure) {
            EXPECT_EQ(failure.getMessage(), text);
        }
    }
}

TEST(AIntegerTest, WholeTextIsOneIntegerWithinItsLimits)
{
    int value = 77;
    for (const auto& [text, expected] : {std::pair{"-0x10", -16}, {"+0b101", 5}, {"010", 8}, {"0", 0}}) {
        EXPECT_TRUE(AInteger::parseWhole(text, -16, 8, value)) << text;
        EXPECT_EQ(value, expected);
    }
    for (const char* text : {"-17", "9", "4294967297", "99999999999999999999", "", "-", " 1", "1 ", "1x",
                             "08", "0x", "0b", "0xg", static_cast<const char*>(nullptr)})
        EXPECT_FALSE(AInteger::parseWhole(text, -16, 8, value)) << text;
    EXPECT_EQ(value, 0);
}
