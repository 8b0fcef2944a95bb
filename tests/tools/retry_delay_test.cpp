#include "retry_delay.h"

#include <gtest/gtest.h>

namespace {

using collector::RetryDelay;

TEST(RetryDelays, AreARandomPartOfATimeThatDoublesUpToHalfAnHour) {
    double random = 0.5;
    RetryDelay delay([&] { return random; });
    EXPECT_EQ(delay.Next(0), 1000U);
    EXPECT_EQ(delay.Next(0), 2000U);
    random = 0;
    EXPECT_EQ(delay.Next(0), 0U);
    random = 0.999;
    EXPECT_EQ(delay.Next(0), 15984U);
    for (int i = 0; i < 20; ++i) {
        EXPECT_LT(delay.Next(0), 1800000U);
    }
    EXPECT_EQ(delay.Next(0), 1798200U);
    delay.Reset();
    EXPECT_EQ(delay.Next(0), 1998U);
}

TEST(RetryDelays, AreNoShorterThanTheServerWishesUpToADay) {
    RetryDelay delay([] { return 0.5; });
    EXPECT_EQ(delay.Next(7), 7000U);
    EXPECT_EQ(delay.Next(1), 2000U);
    EXPECT_EQ(delay.Next(~0ULL), 86400000U);
}

}  // namespace
