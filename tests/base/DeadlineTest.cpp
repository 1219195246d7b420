// SPDX-License-Identifier: BSD-3-Clause
#include "base/Deadline.h"

#include <gtest/gtest.h>

TEST(DeadlineTest, SharesAreEqualPartsOfWhatIsLeft)
{
    const std::tuple<long long, int, int> rows[] = {
        // milliseconds, parts, milliseconds of the first one
        {-1, 1, -1}, {-1, 3, -1}, {0, 3, 0}, {4'000'000, 1, 4'000'000}, {4'000'000, 4, 1'000'000},
    };
    for (const auto& [whole, parts, share] : rows) {
        const int left = Deadline(whole).share(parts).left();
        EXPECT_LE(left, share) << whole << " in " << parts;
        EXPECT_GE(left, share - (share > 0 ? 100'000 : 0)) << whole << " in " << parts; // on a busy machine
    }
    EXPECT_EQ(Deadline(4'000'000'000LL).left(), INT_MAX);
}
