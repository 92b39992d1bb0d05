// Searching frames by time: bisection over rising timestamps, a sorted copy otherwise.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <utility>
#include <vector>

#include "fake_sequencer.h"
#include "sequence/TimestampIndex.h"

using kestor::Timestamp;
using kestor::TimestampIndex;
using kestor::test::FakeSequencer;
using kestor::test::TimesAtMilliseconds;
using kestor::test::ToMicroseconds;

namespace {

Timestamp FromMicroseconds(int64_t micros) {
    return Timestamp{static_cast<int32_t>(micros / 1000000),
                     static_cast<uint16_t>(micros / 1000 % 1000),
                     static_cast<uint16_t>(micros % 1000)};
}

// Timestamps in memory, read through a counting reader that can be told to fail.
struct Frames {
    std::vector<Timestamp> times;
    int reads = 0;
    uint32_t unreadable = 0;  // this frame cannot be read; 0: all can

    TimestampIndex::Reader Reader() {
        return [this](uint32_t frame, Timestamp& time) {
            ++reads;
            if (frame == 0 || frame > times.size() || frame == unreadable) return false;
            time = times[frame - 1];
            return true;
        };
    }
};

// Checks both searches for targets across 1000 frames (every time three times over, 7.3 ms
// apart) against a scan; returns the most reads one nearest and one exact search made.
std::pair<int, int> ExpectSearchesMatchAScan(TimestampIndex& index, Frames& frames, bool rising) {
    std::vector<int64_t> targets;
    for (int64_t micros = -5000; micros <= 333 * 7300 + 5000; micros += 1825)
        targets.push_back(1700000000000000 + micros);
    for (size_t i = 0; i < frames.times.size(); i += 37)
        targets.push_back(ToMicroseconds(frames.times[i]));
    std::pair<int, int> most{0, 0};
    for (const int64_t wanted : targets) {
        uint32_t nearest = 1, exact = 0;
        for (uint32_t frame = 1; frame <= frames.times.size(); ++frame) {
            const int64_t time = ToMicroseconds(frames.times[frame - 1]);
            const int64_t best = ToMicroseconds(frames.times[nearest - 1]);
            const int64_t distance = std::llabs(time - wanted);
            const int64_t bestDistance = std::llabs(best - wanted);
            if (distance < bestDistance || (distance == bestDistance && time < best))
                nearest = frame;
            if (exact == 0 && time == wanted) exact = frame;
        }
        const int start = frames.reads;
        uint32_t frame = 0;
        EXPECT_TRUE(
            index.FindNearest(FromMicroseconds(wanted), 1000, rising, frames.Reader(), frame));
        EXPECT_EQ(frame, nearest) << "nearest to " << wanted;
        const int middle = frames.reads;
        EXPECT_EQ(index.FindExact(FromMicroseconds(wanted), 1000, rising, frames.Reader(), frame),
                  exact != 0);
        if (exact != 0) {
            EXPECT_EQ(frame, exact) << "the lowest frame with time " << wanted;
        }
        most = {std::max(most.first, middle - start), std::max(most.second, frames.reads - middle)};
    }
    return most;
}

std::vector<Timestamp> RisingWithRepeats() {
    std::vector<Timestamp> times;
    for (int frame = 0; frame < 1000; ++frame)
        times.push_back(FromMicroseconds(1700000000000000 + (frame / 3) * 7300));
    return times;
}

}  // namespace

TEST(TimestampIndex, BisectsRisingTimesAndSortsOthersOnce) {
    Frames rising{RisingWithRepeats()};
    TimestampIndex index;
    const auto [nearestReads, exactReads] = ExpectSearchesMatchAScan(index, rising, true);
    EXPECT_LE(exactReads, 11) << "one bisection of 1000 frames";
    EXPECT_LE(nearestReads, 2 * 11 + 2) << "one for the target, one for the earlier time";

    Frames shuffled{RisingWithRepeats()};
    std::shuffle(shuffled.times.begin(), shuffled.times.end(), std::mt19937(7));
    uint32_t frame = 0;
    ASSERT_TRUE(index.FindNearest(shuffled.times[500], 1000, false, shuffled.Reader(), frame));
    EXPECT_EQ(shuffled.reads, 1000) << "every timestamp read once";
    EXPECT_EQ(ExpectSearchesMatchAScan(index, shuffled, false), std::make_pair(0, 0))
        << "later searches use the sorted copy";

    // Changed frames: the copy is rebuilt, also when only the count differs.
    index.Invalidate();
    shuffled.reads = 0;
    ASSERT_TRUE(index.FindExact(shuffled.times[10], 1000, false, shuffled.Reader(), frame));
    EXPECT_EQ(shuffled.reads, 1000);
    ASSERT_TRUE(index.FindNearest(shuffled.times[999], 999, false, shuffled.Reader(), frame));
    EXPECT_EQ(shuffled.reads, 1999) << "frame 1000 is not searched";
    EXPECT_NE(frame, 1000u);
}

TEST(TimestampIndex, TiesGoToTheEarlierTimeThenTheLowerFrame) {
    struct Case {
        int64_t ms;
        uint16_t us;
        bool exact;
        uint32_t rising, shuffled;  // the frame found in either order; 0: no exact match
    };
    // Times in ms: 10 20 20 30 in frame order, and 30 20 10 20 shuffled.
    const Case cases[] = {
        {15, 0, false, 1, 3},  // halfway between 10 and 20: the earlier
        {15, 1, false, 2, 2},  // a microsecond nearer to 20
        {25, 0, false, 2, 2},  // halfway between 20 and 30: the first frame at 20
        {0, 0, false, 1, 3},   // before every frame
        {99, 0, false, 4, 1},  // after every frame
        {20, 0, true, 2, 2},   // exact: the first frame at 20
        {20, 1, true, 0, 0},   // no such time
        {5, 0, true, 0, 0},    // before every frame
        {31, 0, true, 0, 0},   // after every frame
    };
    for (bool rising : {true, false}) {
        Frames frames{rising ? TimesAtMilliseconds({10, 20, 20, 30})
                             : TimesAtMilliseconds({30, 20, 10, 20})};
        TimestampIndex index;
        for (const Case& c : cases) {
            SCOPED_TRACE(::testing::Message() << rising << " " << c.ms << "." << c.us);
            Timestamp target = TimesAtMilliseconds({c.ms})[0];
            target.microseconds = c.us;
            const uint32_t expected = rising ? c.rising : c.shuffled;
            uint32_t frame = 77;
            const bool found = c.exact
                                   ? index.FindExact(target, 4, rising, frames.Reader(), frame)
                                   : index.FindNearest(target, 4, rising, frames.Reader(), frame);
            EXPECT_EQ(found, expected != 0);
            EXPECT_EQ(frame, expected != 0 ? expected : 77u) << "untouched when nothing matches";
        }
    }
}

TEST(TimestampIndex, FailsWithoutFramesOrWhenATimestampCannotBeRead) {
    Frames frames{TimesAtMilliseconds({10, 20, 30, 40, 50})};
    TimestampIndex index;
    uint32_t frame = 0;
    EXPECT_FALSE(index.FindNearest(frames.times[0], 0, false, frames.Reader(), frame));
    EXPECT_FALSE(index.FindExact(frames.times[0], 0, true, frames.Reader(), frame));
    EXPECT_EQ(frames.reads, 0);
    frames.unreadable = 3;
    EXPECT_FALSE(index.FindNearest(frames.times[2], 5, true, frames.Reader(), frame));
    EXPECT_FALSE(index.FindNearest(frames.times[0], 5, false, frames.Reader(), frame));
    frames.unreadable = 0;
    frames.reads = 0;
    ASSERT_TRUE(index.FindNearest(frames.times[3], 5, false, frames.Reader(), frame));
    EXPECT_EQ(frame, 4u);
    EXPECT_EQ(frames.reads, 5) << "a failed pass leaves nothing cached";
}

TEST(TimestampIndex, TheSequencerSearchesByBisectionOnlyWhenTheFramesAreKnownToRise) {
    std::vector<int64_t> offsets;
    for (int frame = 0; frame < 500; ++frame) offsets.push_back(frame * 4);
    FakeSequencer sequencer(TimesAtMilliseconds(offsets));
    const Timestamp at401 = TimesAtMilliseconds({401 * 4 + 1})[0];
    uint32_t frame = 0;
    for (int search = 0; search < 2; ++search) {  // unknown order: one full pass, then none
        ASSERT_TRUE(sequencer.GetIndexNear(at401.seconds, at401.milliseconds, 0, frame));
        EXPECT_EQ(frame, 402u);
    }
    EXPECT_EQ(sequencer.TimestampReads(), 500);
    EXPECT_FALSE(sequencer.GetIndexAt(at401.seconds, at401.milliseconds, 0, frame));
    EXPECT_EQ(sequencer.GetLastError(), eKErrInvalidIndex);

    sequencer.MarkRising();
    const int before = sequencer.TimestampReads();
    ASSERT_TRUE(sequencer.GetIndexAt(at401.seconds, at401.milliseconds - 1, 0, frame));
    EXPECT_EQ(frame, 402u);
    ASSERT_TRUE(sequencer.GetIndexNear(at401.seconds, at401.milliseconds, 0, frame));
    EXPECT_EQ(frame, 402u);
    EXPECT_LE(sequencer.TimestampReads() - before, 2 * 10 + 2 * 10 + 2) << "bisections";
}
