#include "NumberFormatException.h"

#include <gtest/gtest.h>

TEST(Exceptions, CarryTheirMessageToTheHandlerOfTheRootAndCutItBeyond4095Characters)
{
    const std::string longest(4095, 'm');
    EXPECT_EQ(Exception().getMessage() + NumberFormatException().getMessage(), "");
    EXPECT_EQ(Exception("%s", longest.c_str()).getMessage(), longest);
    try {
        throw NumberFormatException("%s!", longest.c_str());
    } catch (const Exception& failure) {
        EXPECT_EQ(failure.getMessage(), longest);
    }
}
