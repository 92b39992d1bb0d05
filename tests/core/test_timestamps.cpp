#include <gtest/gtest.h>

#include <tuple>
#include <utility>

#include "KUtils.h"

namespace {

using Parts = std::tuple<int64_t, int, int>;  // seconds, milliseconds, microseconds

Parts Relative(int32_t rs, uint16_t rms, uint16_t rus, int32_t as, uint16_t ams, uint16_t aus) {
    uint32_t s;
    uint16_t ms, us;
    AbsoluteToRelative(rs, rms, rus, as, ams, aus, s, ms, us);
    return {s, ms, us};
}

Parts Absolute(int32_t rs, uint16_t rms, uint16_t rus, uint32_t os, uint16_t oms, uint16_t ous) {
    int32_t s;
    uint16_t ms, us;
    RelativeToAbsolute(rs, rms, rus, os, oms, ous, s, ms, us);
    return {s, ms, us};
}

// seconds, milliseconds, microseconds, positive, result
std::tuple<int64_t, int, int, bool, bool> Difference(int32_t s1, uint16_t ms1, uint16_t us1,
                                                     int32_t s2, uint16_t ms2, uint16_t us2) {
    int32_t s;
    int16_t ms, us;
    bool positive;
    const bool result = ComputeTimeDifference(s1, ms1, us1, s2, ms2, us2, s, ms, us, positive);
    return {s, ms, us, positive, result};
}

std::pair<int64_t, int> AddOffset(int32_t s, int16_t ms, int16_t us, int32_t os, int16_t oms,
                                  int16_t ous) {
    AddTimestampOffset(s, ms, us, os, oms, ous);
    return {s, ms};
}

}  // namespace

TEST(Timestamps, CompareOrdersBySecondsThenMillisecondsThenMicroseconds) {
    EXPECT_EQ(CompareTimestamps(5, 0, 0, 5, 0, 0), 0);
    EXPECT_EQ(CompareTimestamps(5, 0, 1, 5, 0, 0), 1);
    EXPECT_EQ(CompareTimestamps(4, 999, 999, 5, 0, 0), -1);
    EXPECT_EQ(CompareTimestamps(-1, 0, 0, 0, 0, 0), -1) << "seconds are signed";
    EXPECT_EQ(CompareTimestamps(7, 2, 0, 7, 1, 999), 1);
}

TEST(Timestamps, DifferenceIsNormalisedAndSignedByTheFlag) {
    EXPECT_EQ(Difference(10, 0, 0, 9, 999, 999), std::make_tuple(0, 0, 1, false, true));
    EXPECT_EQ(Difference(3, 4, 5, 3, 4, 5), std::make_tuple(0, 0, 0, true, false));
    EXPECT_EQ(Difference(1, 500, 0, 3, 250, 100), std::make_tuple(1, 750, 100, true, true));
    EXPECT_EQ(Difference(0, 0, 999, 0, 1, 0), std::make_tuple(0, 0, 1, true, true));
}

TEST(Timestamps, AbsoluteToRelativeKeepsTheUnsignedBorrowQuirk) {
    // A microsecond borrow from zero milliseconds wraps to 65535 and takes no second.
    EXPECT_EQ(Relative(0, 0, 500, 1, 0, 100), Parts(1, 65535, 600));
    EXPECT_EQ(Relative(10, 900, 0, 12, 100, 0), Parts(1, 200, 0));
    EXPECT_EQ(Relative(10, 1, 900, 10, 5, 100), Parts(0, 3, 200));
    EXPECT_EQ(Relative(1000, 250, 250, 1000, 250, 250), Parts(0, 0, 0));
}

TEST(Timestamps, RelativeToAbsoluteCarriesOnceAndRoundTrips) {
    EXPECT_EQ(Absolute(0, 999, 999, 0, 1, 1), Parts(1, 1, 0));
    EXPECT_EQ(Absolute(0, 0, 0, 0, 2500, 0), Parts(1, 1500, 0)) << "one carry step only";

    // For in-range values with absolute >= reference, the two conversions are inverse.
    const int32_t refS = 1'700'000'000;
    for (uint16_t ms : {0, 1, 499, 999})
        for (uint16_t us : {0, 1, 500, 999}) {
            auto [rs, rms, rus] = Relative(refS, 400, 600, refS + 3, ms, us);
            if (rms > 999) continue;  // the quirk above: not a valid relative value
            EXPECT_EQ(Absolute(refS, 400, 600, rs, rms, rus), Parts(refS + 3, ms, us));
        }
}

TEST(Timestamps, AddOffsetCarriesOnceAndReturnsOnlyTheMicrosecondCarry) {
    using SecondsAndMilliseconds = std::pair<int64_t, int>;
    EXPECT_EQ(AddOffset(0, 999, 999, 0, 0, 1), SecondsAndMilliseconds(1, 0));
    EXPECT_EQ(AddOffset(10, 0, 0, 0, 0, -1), SecondsAndMilliseconds(9, 999));
    EXPECT_EQ(AddOffset(10, 500, 200, -2, 100, 300), SecondsAndMilliseconds(8, 600));
    EXPECT_EQ(AddOffset(0, 900, 0, 0, 1500, 0), SecondsAndMilliseconds(1, 1400)) << "one step";
}
