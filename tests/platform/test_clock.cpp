#include <gtest/gtest.h>

#include <ctime>

#include "platform/Clock.h"

TEST(Clock, WallTimeAgreesWithTheSystemClockAndMonotonicTimeNeverGoesBack) {
    const time_t before = time(nullptr);
    const kestor::WallTime now = kestor::CurrentWallTime();
    const time_t after = time(nullptr);
    // A sanity check of units and epoch, not a timing requirement.
    EXPECT_GE(now.seconds, static_cast<int64_t>(before) - 2);
    EXPECT_LE(now.seconds, static_cast<int64_t>(after) + 2);
    EXPECT_LT(now.milliseconds, 1000);
    EXPECT_LT(now.microseconds, 1000);
    const uint64_t first = kestor::MonotonicNanoseconds();
    EXPECT_GE(kestor::MonotonicNanoseconds(), first);
}
