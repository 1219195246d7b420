#include "AInteger.h"
#include "NumberFormatException.h"

#include <gtest/gtest.h>

#include <climits>
#include <vector>

namespace {

/// The number that @p text begins with; -77 if it is rejected with itself as the message.
int parsed(const std::string& text) {
    try {
        return AInteger::parseInt(text.c_str());
    } catch (const NumberFormatException& failure) { return failure.getMessage() == text ? -77 : 77; }
}

TEST(AInteger, ReadsTheNumberThatATextBeginsWithOrHandsTheTextOverAsData) {
    const std::pair<std::vector<std::string>, int> rows[] = {
        {{"  5", "5abc", "\t\n\v\f\r+5", "0x5", "0X5g", "005", "058", "0b101", "0B1012", "5%d"}, 5},
        {{"", "  \n", "abc", "-", "+ 1", "+-1", "x12", "%s%n", "\xa0\x31"}, -77},
        {{"-010", "-0x8", "-0b1000", "-8.5", "0xFFFFFFF8"}, -8},
        {{"0xaFzZ", "0XAf", "0257"}, 175},
        {{"0x", "0bz", "08", "-0", "-9223372036854775809"}, 0}, // beyond 64 bits: the low half of the limit
        {{"4294967295", "9223372036854775807", "99999999999999999999", "0xFFFFFFFFFFFFFFFF"}, -1},
        {{"-2147483648", "2147483648"}, INT_MIN},
    };
    for (const auto& [texts, value] : rows)
        for (const std::string& text : texts) EXPECT_EQ(parsed(text), value) << text;
}

TEST(AInteger, FormatsDecimalAndPacksTheMostSignificantByteFirst) {
    EXPECT_EQ(AInteger(7).toString() + AInteger::toString(AInteger(INT_MIN).getValue()), "7-2147483648");
    unsigned char data[] = "------------";
    AInteger::encodeInt(data, 0, -2);
    AInteger::encodeInt(data, 5, INT_MIN + 0x010203);
    AInteger::encodeShort(data, 10, static_cast<short>(0xFEDC));
    EXPECT_STREQ(reinterpret_cast<char*>(data), "\xff\xff\xff\xfe-\x80\1\2\3-\xfe\xdc");
    EXPECT_EQ(AInteger::decodeInt(data, 5), INT_MIN + 0x010203);
    EXPECT_EQ(AInteger::decodeShort(data, 10), 0xFEDC);
}

} // namespace
