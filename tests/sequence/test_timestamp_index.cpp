#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <random>
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

// The answers by looking at every frame.
std::optional<uint32_t> ExactByScan(const std::vector<Timestamp>& times, uint32_t count,
                                    const Timestamp& target) {
    for (uint32_t frame = 1; frame <= count; ++frame)
        if (ToMicroseconds(times[frame - 1]) == ToMicroseconds(target)) return frame;
    return std::nullopt;
}

uint32_t NearestByScan(const std::vector<Timestamp>& times, uint32_t count,
                       const Timestamp& target) {
    const int64_t wanted = ToMicroseconds(target);
    uint32_t best = 1;
    for (uint32_t frame = 2; frame <= count; ++frame) {
        const int64_t time = ToMicroseconds(times[frame - 1]);
        const int64_t bestTime = ToMicroseconds(times[best - 1]);
        const int64_t distance = std::llabs(time - wanted);
        const int64_t bestDistance = std::llabs(bestTime - wanted);
        if (distance < bestDistance || (distance == bestDistance && time < bestTime)) best = frame;
    }
    return best;
}

// 1000 frames, every time three times over, 7.3 ms apart.
std::vector<Timestamp> RisingWithRepeats() {
    std::vector<Timestamp> times;
    for (int frame = 0; frame < 1000; ++frame)
        times.push_back(FromMicroseconds(1700000000000000 + (frame / 3) * 7300));
    return times;
}

// Targets from before the first frame to after the last, hitting times, midpoints and gaps.
std::vector<Timestamp> Targets(const std::vector<Timestamp>& times) {
    int64_t first = ToMicroseconds(times.front());
    int64_t last = first;
    for (const Timestamp& time : times) {
        first = std::min(first, ToMicroseconds(time));
        last = std::max(last, ToMicroseconds(time));
    }
    std::vector<Timestamp> targets;
    for (int64_t micros = first - 5000; micros <= last + 5000; micros += 1825)
        targets.push_back(FromMicroseconds(micros));
    for (size_t i = 0; i < times.size(); i += 37) targets.push_back(times[i]);
    return targets;
}

}  // namespace

TEST(TimestampIndex, BisectsRisingTimestampsInLogarithmicReads) {
    Frames frames{RisingWithRepeats()};
    const uint32_t count = static_cast<uint32_t>(frames.times.size());
    TimestampIndex index;
    int mostReads = 0;
    for (const Timestamp& target : Targets(frames.times)) {
        uint32_t frame = 0;
        frames.reads = 0;
        ASSERT_TRUE(index.FindNearest(target, count, true, frames.Reader(), frame));
        EXPECT_EQ(frame, NearestByScan(frames.times, count, target)) << ToMicroseconds(target);
        mostReads = std::max(mostReads, frames.reads);

        frames.reads = 0;
        const std::optional<uint32_t> exact = ExactByScan(frames.times, count, target);
        EXPECT_EQ(index.FindExact(target, count, true, frames.Reader(), frame), exact.has_value());
        if (exact) {
            EXPECT_EQ(frame, *exact) << "the lowest frame with that time";
        }
        EXPECT_LE(frames.reads, 11) << "one bisection of 1000 frames";
    }
    // Nearest: one bisection for the target, one for the first frame of the earlier time.
    EXPECT_LE(mostReads, 2 * 11 + 2);
}

TEST(TimestampIndex, ShuffledTimestampsAreReadOnceAndSearchedInMemory) {
    Frames frames{RisingWithRepeats()};
    std::mt19937 random(7);
    std::shuffle(frames.times.begin(), frames.times.end(), random);
    const uint32_t count = static_cast<uint32_t>(frames.times.size());
    TimestampIndex index;

    uint32_t frame = 0;
    ASSERT_TRUE(index.FindNearest(frames.times[500], count, false, frames.Reader(), frame));
    EXPECT_EQ(frames.reads, 1000) << "every timestamp read once";
    frames.reads = 0;
    for (const Timestamp& target : Targets(frames.times)) {
        ASSERT_TRUE(index.FindNearest(target, count, false, frames.Reader(), frame));
        EXPECT_EQ(frame, NearestByScan(frames.times, count, target)) << ToMicroseconds(target);
        const std::optional<uint32_t> exact = ExactByScan(frames.times, count, target);
        EXPECT_EQ(index.FindExact(target, count, false, frames.Reader(), frame), exact.has_value());
        if (exact) {
            EXPECT_EQ(frame, *exact) << "the lowest frame with that time";
        }
    }
    EXPECT_EQ(frames.reads, 0) << "later searches use the sorted copy";

    // Changed frames: the copy is rebuilt, also when only the count differs.
    index.Invalidate();
    ASSERT_TRUE(index.FindExact(frames.times[10], count, false, frames.Reader(), frame));
    EXPECT_EQ(frames.reads, 1000);
    frames.reads = 0;
    const Timestamp lastTime = frames.times[999];
    ASSERT_TRUE(index.FindNearest(lastTime, 999, false, frames.Reader(), frame));
    EXPECT_EQ(frames.reads, 999);
    EXPECT_EQ(frame, NearestByScan(frames.times, 999, lastTime)) << "frame 1000 is not searched";
}

TEST(TimestampIndex, TiesGoToTheEarlierTimeThenTheLowerFrame) {
    // Times in ms: 10 20 20 30 in frame order, and the same times shuffled.
    for (bool rising : {true, false}) {
        SCOPED_TRACE(rising ? "rising" : "shuffled");
        Frames frames{rising ? TimesAtMilliseconds({10, 20, 20, 30})
                             : TimesAtMilliseconds({30, 20, 10, 20})};
        const auto at = [&](int64_t ms, int microseconds = 0) {
            Timestamp time = TimesAtMilliseconds({ms})[0];
            time.microseconds = static_cast<uint16_t>(microseconds);
            return time;
        };
        const uint32_t frameOf10 = rising ? 1 : 3;
        const uint32_t firstFrameOf20 = 2;
        const uint32_t frameOf30 = rising ? 4 : 1;
        TimestampIndex index;
        uint32_t frame = 0;

        ASSERT_TRUE(index.FindNearest(at(15), 4, rising, frames.Reader(), frame));
        EXPECT_EQ(frame, frameOf10) << "halfway between 10 and 20: the earlier";
        ASSERT_TRUE(index.FindNearest(at(15, 1), 4, rising, frames.Reader(), frame));
        EXPECT_EQ(frame, firstFrameOf20) << "a microsecond nearer to 20";
        ASSERT_TRUE(index.FindNearest(at(25), 4, rising, frames.Reader(), frame));
        EXPECT_EQ(frame, firstFrameOf20) << "halfway between 20 and 30: the first frame at 20";
        ASSERT_TRUE(index.FindNearest(at(20), 4, rising, frames.Reader(), frame));
        EXPECT_EQ(frame, firstFrameOf20);
        ASSERT_TRUE(index.FindNearest(at(0), 4, rising, frames.Reader(), frame));
        EXPECT_EQ(frame, frameOf10) << "before every frame";
        ASSERT_TRUE(index.FindNearest(at(99), 4, rising, frames.Reader(), frame));
        EXPECT_EQ(frame, frameOf30) << "after every frame";

        ASSERT_TRUE(index.FindExact(at(20), 4, rising, frames.Reader(), frame));
        EXPECT_EQ(frame, firstFrameOf20);
        frame = 77;
        EXPECT_FALSE(index.FindExact(at(20, 1), 4, rising, frames.Reader(), frame));
        EXPECT_FALSE(index.FindExact(at(5), 4, rising, frames.Reader(), frame));
        EXPECT_FALSE(index.FindExact(at(31), 4, rising, frames.Reader(), frame));
        EXPECT_EQ(frame, 77u) << "untouched when nothing matches";
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

    // Unknown order: one full pass, then none.
    ASSERT_TRUE(sequencer.GetIndexNear(at401.seconds, at401.milliseconds, 0, frame));
    EXPECT_EQ(frame, 402u);
    EXPECT_EQ(sequencer.TimestampReads(), 500);
    ASSERT_TRUE(sequencer.GetIndexNear(at401.seconds, at401.milliseconds + 1, 0, frame));
    EXPECT_EQ(frame, 402u) << "halfway: the earlier frame";
    ASSERT_TRUE(sequencer.GetIndexNear(at401.seconds, at401.milliseconds + 1, 1, frame));
    EXPECT_EQ(frame, 403u) << "a microsecond past halfway";
    EXPECT_EQ(sequencer.TimestampReads(), 500);
    EXPECT_FALSE(sequencer.GetIndexAt(at401.seconds, at401.milliseconds, 0, frame));
    EXPECT_EQ(sequencer.GetLastError(), eKErrInvalidIndex);

    // Known to rise (and the cache dropped by the change of frames): bisection.
    sequencer.SetTimes(TimesAtMilliseconds(offsets));
    sequencer.MarkRising();
    const int before = sequencer.TimestampReads();
    const Timestamp at100 = TimesAtMilliseconds({100 * 4})[0];
    ASSERT_TRUE(sequencer.GetIndexAt(at100.seconds, at100.milliseconds, 0, frame));
    EXPECT_EQ(frame, 101u);
    ASSERT_TRUE(sequencer.GetIndexNear(at401.seconds, at401.milliseconds, 0, frame));
    EXPECT_EQ(frame, 402u);
    EXPECT_LE(sequencer.TimestampReads() - before, 2 * 10 + 2 * 10 + 2);
}
