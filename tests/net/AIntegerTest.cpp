// SPDX-License-Identifier: BSD-3-Clause
#include "AInteger.h"
#include "NumberFormatException.h"

#include <gtest/gtest.h>

#include <climits>

TEST(AIntegerTest, ReadsTheNumberThatATextBeginsWithOrHandsTheTextOverAsData)
{
    std::string numbers;
    for (const char* text :
         {"\t\n\v\f\r +058", "-0B1012", "0XaFz", "0x", "08", "-2147483649", "9223372036854775808"})
        numbers += std::to_string(AInteger::parseInt(text)) + " ";
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

TEST(AIntegerTest, FormatsDecimalAndPacksTheMostSignificantByteFirst)
{
    EXPECT_EQ(AInteger(7).toString() + AInteger::toString(AInteger(INT_MIN).getValue()), "7-2147483648");
    unsigned char data[] = "------------";
    AInteger::encodeInt(data, 0, -2);
    AInteger::encodeInt(data, 5, INT_MIN + 0x010203);
    AInteger::encodeShort(data, 10, static_cast<short>(0xFEDC));
    EXPECT_STREQ(reinterpret_cast<char*>(data), "\xff\xff\xff\xfe-\x80\1\2\3-\xfe\xdc");
    EXPECT_EQ(AInteger::decodeInt(data, 5), INT_MIN + 0x010203);
    EXPECT_EQ(AInteger::decodeShort(data, 10), 0xFEDC);
}
