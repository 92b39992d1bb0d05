#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "platform/Clock.h"

TEST(Clock, MonotonicNeverGoesBack) {
    uint64_t previous = kestor::MonotonicNanoseconds();
    EXPECT_GT(previous, 0u);
    for (int i = 0; i < 10000; ++i) {
        const uint64_t now = kestor::MonotonicNanoseconds();
        ASSERT_GE(now, previous);
        previous = now;
    }
}

TEST(Clock, WallTimeAgreesWithTheSystemClock) {
    const time_t before = time(nullptr);
    const kestor::WallTime now = kestor::CurrentWallTime();
    const time_t after = time(nullptr);
    // A sanity check of units and epoch, not a timing requirement.
    EXPECT_GE(now.seconds, static_cast<int64_t>(before) - 2);
    EXPECT_LE(now.seconds, static_cast<int64_t>(after) + 2);
    EXPECT_LT(now.milliseconds, 1000);
    EXPECT_LT(now.microseconds, 1000);
}
