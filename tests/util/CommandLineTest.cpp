#include "CommandLine.h"

#include <gtest/gtest.h>

TEST(CommandLineTest, FirstOccurrenceOfAnOptionAnswersWithItsFirstValue) {
    const std::tuple<std::vector<const char*>, const char*, bool, const char*> cases[] = {
        {{"prog", "-f", "a", "b", "-g", "c"}, "f", true, "a"},
        {{"prog", "-f", "a", "b", "-g", "c"}, "g", true, "c"},
        {{"prog", "-f", "a"}, "prog", false, nullptr},
        {{"prog", "-f", "a"}, nullptr, false, nullptr},
        {{"prog", "-n", "-5", "-n", "late"}, "n", true, nullptr}, // there is no value to read
        {{"prog", "-level", "1", "--level", "3"}, "-level", true, "3"},
        {{"prog", "-f", nullptr, "-g"}, "g", false, nullptr}, // behind the end of the vector
        {{}, "f", false, nullptr},
    };
    for (auto [words, name, present, value] : cases) {
        CommandLine line(static_cast<int>(words.size()), const_cast<char**>(words.data()));
        EXPECT_EQ(line.hasArg(name), present) << testing::PrintToString(words);
        EXPECT_STREQ(line.getArg(name), value) << testing::PrintToString(words);
    }
}
