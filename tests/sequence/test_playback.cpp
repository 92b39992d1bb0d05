#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "fake_sequencer.h"
#include "platform/Clock.h"

using kestor::MonotonicNanoseconds;
using kestor::PlaybackEngine;
using kestor::Timestamp;
using kestor::test::FakeSequencer;
using kestor::test::TimesAtMilliseconds;
using kestor::test::ToMicroseconds;

namespace {

// Long enough to mean "never" for a playback that works; bounds the waits of a broken one.
constexpr auto kGuard = std::chrono::seconds(30);
constexpr int64_t kHourMs = 3600 * 1000;

enum class Kind { Read, EndOfSequence, EndOfRange, Stopped };

struct Event {
    Kind kind;
    uint32_t frame;  // for Read
    unsigned int id;
    void* context;
    uint64_t atNs;
    std::thread::id thread;
    const KImage* image;
};

// Records every callback; stops at the n-th end of range or sequence unless told otherwise.
class Recorder : public KSequencerCallbacks {
public:
    int stopAtEnd = 1;                           // 0: never stop at an end
    std::function<void(uint32_t frame)> onRead;  // runs after the delivery is recorded
    std::function<void()> onStopped;

    void OnImageRead(KImage* image, unsigned int id, void* context) override {
        const uint32_t frame = FakeSequencer::FrameIn(image);
        Record({Kind::Read, frame, id, context, MonotonicNanoseconds(), {}, image});
        if (onRead) onRead(frame);
    }
    void OnEndOfSequence(bool& stop, unsigned int id, void* context) override {
        stop = End(Kind::EndOfSequence, id, context);
    }
    void OnEndOfPlaybackRange(bool& stop, unsigned int id, void* context) override {
        stop = End(Kind::EndOfRange, id, context);
    }
    void OnPlaybackStopped(unsigned int id, void* context) override {
        Record({Kind::Stopped, 0, id, context, MonotonicNanoseconds(), {}, nullptr});
        if (onStopped) onStopped();
    }

    std::vector<Event> Events() const {
        std::lock_guard lock(mutex_);
        return events_;
    }
    void Clear() {
        std::lock_guard lock(mutex_);
        events_.clear();
        ends_ = 0;
    }
    // The delivered frame numbers, with 'E' for an end of sequence, 'R' for an end of range
    // and 'S' for a stop, as text: "1 2 3 E S".
    std::string Script() const {
        std::string script;
        for (const Event& event : Events()) {
            if (!script.empty()) script += ' ';
            switch (event.kind) {
                case Kind::Read:
                    script += std::to_string(event.frame);
                    break;
                case Kind::EndOfSequence:
                    script += 'E';
                    break;
                case Kind::EndOfRange:
                    script += 'R';
                    break;
                case Kind::Stopped:
                    script += 'S';
                    break;
            }
        }
        return script;
    }
    // Waits (bounded) until `count` events of that kind were recorded.
    bool WaitFor(Kind kind, size_t count = 1) const {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kGuard, [&] {
            size_t seen = 0;
            for (const Event& event : events_) seen += event.kind == kind;
            return seen >= count;
        });
    }
    bool WaitForFrame(uint32_t frame) const {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kGuard, [&] {
            for (const Event& event : events_)
                if (event.kind == Kind::Read && event.frame == frame) return true;
            return false;
        });
    }
    // Delivery times of the frames, in order of delivery.
    std::vector<std::pair<uint32_t, uint64_t>> Deliveries() const {
        std::vector<std::pair<uint32_t, uint64_t>> deliveries;
        for (const Event& event : Events())
            if (event.kind == Kind::Read) deliveries.emplace_back(event.frame, event.atNs);
        return deliveries;
    }

private:
    bool End(Kind kind, unsigned int id, void* context) {
        Record({kind, 0, id, context, MonotonicNanoseconds(), {}, nullptr});
        std::lock_guard lock(mutex_);
        return stopAtEnd > 0 && ++ends_ >= stopAtEnd;
    }
    void Record(Event event) {
        event.thread = std::this_thread::get_id();
        std::lock_guard lock(mutex_);
        events_.push_back(event);
        changed_.notify_all();
    }

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Event> events_;
    int ends_ = 0;
};

// Runs `action` and fails the whole run if it does not return: a deadlock must not hang CTest.
void MustReturn(const std::function<void()>& action, const char* what) {
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    std::thread([action, done] {
        action();
        done->set_value();
    }).detach();
    if (finished.wait_for(kGuard) != std::future_status::ready) {
        std::fprintf(stderr, "%s did not return: deadlock\n", what);
        std::abort();
    }
}

// Every frame is delivered no earlier than `start` plus its playback offset.
void ExpectNotEarly(const std::vector<std::pair<uint32_t, uint64_t>>& deliveries, uint64_t start,
                    const std::function<double(uint32_t frame)>& offsetMs) {
    ASSERT_FALSE(deliveries.empty());
    for (const auto& [frame, atNs] : deliveries) {
        const double dueNs = static_cast<double>(start) + offsetMs(frame) * 1e6;
        EXPECT_GE(static_cast<double>(atNs), dueNs)
            << "frame " << frame << " came " << (dueNs - static_cast<double>(atNs)) / 1e6
            << " ms early";
    }
}

// The offset of frame n's timestamp from frame `first`'s, in milliseconds.
std::function<double(uint32_t)> TimestampOffsets(const std::vector<Timestamp>& times,
                                                 double speed = 1.0, uint32_t first = 1) {
    return [times, speed, first](uint32_t frame) {
        return (ToMicroseconds(times[frame - 1]) - ToMicroseconds(times[first - 1])) / 1000.0 /
               speed;
    };
}

// Threads named like the playback thread that are alive in this process.
int PlaybackThreadsAlive() {
    int alive = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm");
        std::string name;
        std::getline(comm, name);
        alive += name == "kestor-playback";
    }
    return alive;
}

}  // namespace

TEST(Playback, DeliversTheFramesInOrderWithTheRegisteredIdAndContext) {
    FakeSequencer sequencer(TimesAtMilliseconds({0, 5, 10, 15}));
    Recorder recorder;
    int token = 0;
    sequencer.SetCallbacks(&recorder, 42, &token);
    PlaybackEngine& playback = sequencer.Playback();

    ASSERT_TRUE(playback.Play(false));
    ASSERT_TRUE(recorder.WaitFor(Kind::Stopped));
    EXPECT_EQ(recorder.Script(), "1 2 3 4 E S");
    const std::vector<Event> events = recorder.Events();
    for (const Event& event : events) {
        EXPECT_EQ(event.id, 42u);
        EXPECT_EQ(event.context, &token);
        EXPECT_NE(event.thread, std::this_thread::get_id()) << "callbacks run on their own thread";
        EXPECT_EQ(event.thread, events.front().thread) << "one playback thread";
    }
    EXPECT_EQ(events[0].image, events[3].image) << "one image, reused for every frame";
    EXPECT_FALSE(playback.IsPlaying());
    EXPECT_FALSE(playback.IsFixedRate());
    EXPECT_EQ(sequencer.GetReadFrame(), 4u) << "stopping at the end leaves the last frame";

    // Nothing to play: no thread, the sequencer tells why.
    FakeSequencer empty;
    EXPECT_FALSE(empty.Playback().Play(false));
    EXPECT_EQ(empty.GetLastError(), eKErrInvalidIndex);
    EXPECT_FALSE(empty.Playback().IsPlaying());
}

TEST(Playback, EndOfSequenceLoopsToTheRangeStartUntilTheCallbackStops) {
    FakeSequencer sequencer(TimesAtMilliseconds({0, 1, 2}));
    Recorder recorder;
    recorder.stopAtEnd = 3;
    sequencer.SetCallbacks(&recorder, 1, nullptr);
    sequencer.SetReadFrame(2);

    ASSERT_TRUE(sequencer.Playback().Play(false));
    ASSERT_TRUE(recorder.WaitFor(Kind::Stopped));
    EXPECT_EQ(recorder.Script(), "2 3 E 1 2 3 E 1 2 3 E S")
        << "starts at the read frame, loops to the range start";
}

TEST(Playback, RangeEndIsTheEndOfSequenceOnlyWhenItIsTheLastFrame) {
    FakeSequencer sequencer(TimesAtMilliseconds({0, 1, 2, 3, 4, 5}));
    Recorder recorder;
    recorder.stopAtEnd = 2;
    sequencer.SetCallbacks(&recorder, 1, nullptr);
    PlaybackEngine& playback = sequencer.Playback();

    playback.SetRange(2, 4);
    ASSERT_TRUE(playback.Play(false));  // read frame 1 lies before the range
    ASSERT_TRUE(recorder.WaitFor(Kind::Stopped));
    EXPECT_EQ(recorder.Script(), "2 3 4 R 2 3 4 R S");

    recorder.Clear();
    playback.SetRange(5, 0);
    uint32_t first = 0;
    uint32_t last = 99;
    playback.GetRange(first, last);
    EXPECT_EQ(first, 5u);
    EXPECT_EQ(last, 0u) << "0 stays 'the last frame'";
    ASSERT_TRUE(playback.Play(false));
    ASSERT_TRUE(recorder.WaitFor(Kind::Stopped));
    EXPECT_EQ(recorder.Script(), "5 6 E 5 6 E S");

    recorder.Clear();
    playback.SetRange(0, 3);  // 0 is raised to 1
    playback.GetRange(first, last);
    EXPECT_EQ(first, 1u);
    EXPECT_EQ(last, 3u);
    sequencer.SetReadFrame(6);  // after the range: clamped to its end
    recorder.stopAtEnd = 1;
    ASSERT_TRUE(playback.Play(false));
    ASSERT_TRUE(recorder.WaitFor(Kind::Stopped));
    EXPECT_EQ(recorder.Script(), "3 R S");

    playback.SetRange(4, 2);
    playback.GetRange(first, last);
    EXPECT_EQ(first, 2u);
    EXPECT_EQ(last, 4u) << "a reversed range is put in order";
}

TEST(Playback, FrameSkipLeavesOutFramesButKeepsTheirTiming) {
    const std::vector<Timestamp> times = TimesAtMilliseconds({0, 10, 20, 30, 40, 50, 60});
    FakeSequencer sequencer(times);
    Recorder recorder;
    sequencer.SetCallbacks(&recorder, 1, nullptr);
    PlaybackEngine& playback = sequencer.Playback();

    playback.SetFrameSkip(2);
    EXPECT_EQ(playback.GetFrameSkip(), 2u);
    const uint64_t start = MonotonicNanoseconds();
    ASSERT_TRUE(playback.Play(false));
    ASSERT_TRUE(recorder.WaitFor(Kind::Stopped));
    EXPECT_EQ(recorder.Script(), "1 4 7 E S");
    ExpectNotEarly(recorder.Deliveries(), start, TimestampOffsets(times));

    recorder.Clear();
    recorder.stopAtEnd = 2;
    playback.SetFrameSkip(1);
    playback.SetRange(2, 0);
    sequencer.SetReadFrame(2);
    ASSERT_TRUE(playback.Play(false));
    ASSERT_TRUE(recorder.WaitFor(Kind::Stopped));
    EXPECT_EQ(recorder.Script(), "2 4 6 E 2 4 6 E S") << "past the end: the end is reported";

    recorder.Clear();
    recorder.stopAtEnd = 1;
    playback.SetFrameSkip(100);
    ASSERT_TRUE(playback.Play(false));
    ASSERT_TRUE(recorder.WaitFor(Kind::Stopped));
    EXPECT_EQ(recorder.Script(), "6 E S") << "resumes where the last run stopped";
}

TEST(Playback, TimestampedFramesAreNeverDeliveredBeforeTheyAreDue) {
    const std::vector<Timestamp> times = TimesAtMilliseconds({0, 15, 40, 41, 70, 110, 111, 150});
    FakeSequencer sequencer(times);
    Recorder recorder;
    sequencer.SetCallbacks(&recorder, 1, nullptr);
    PlaybackEngine& playback = sequencer.Playback();

    EXPECT_EQ(playback.GetSpeed(), 1.0);
    uint64_t start = MonotonicNanoseconds();
    ASSERT_TRUE(playback.Play(false));
    ASSERT_TRUE(recorder.WaitFor(Kind::Stopped));
    EXPECT_EQ(recorder.Deliveries().size(), times.size());
    ExpectNotEarly(recorder.Deliveries(), start, TimestampOffsets(times));

    // Half speed: every offset doubles.
    recorder.Clear();
    playback.SetSpeed(0.5);
    playback.SetSpeed(0.0);
    playback.SetSpeed(-2.0);
    playback.SetSpeed(std::numeric_limits<double>::quiet_NaN());
    EXPECT_EQ(playback.GetSpeed(), 0.5) << "only speeds above 0 are taken";
    sequencer.SetReadFrame(1);
    start = MonotonicNanoseconds();
    ASSERT_TRUE(playback.Play(false));
    ASSERT_TRUE(recorder.WaitFor(Kind::Stopped));
    EXPECT_EQ(recorder.Deliveries().size(), times.size());
    ExpectNotEarly(recorder.Deliveries(), start, TimestampOffsets(times, 0.5));
}

TEST(Playback, FixedRateFollowsTheFrameRateRatherThanTheTimestamps) {
    // An hour between frames: timestamped playback would still be waiting for frame 2.
    const std::vector<Timestamp> times =
        TimesAtMilliseconds({0, kHourMs, 2 * kHourMs, 3 * kHourMs, 4 * kHourMs});
    FakeSequencer sequencer(times, 100.0);
    Recorder recorder;
    sequencer.SetCallbacks(&recorder, 1, nullptr);
    PlaybackEngine& playback = sequencer.Playback();

    playback.SetSpeed(0.5);
    const uint64_t start = MonotonicNanoseconds();
    ASSERT_TRUE(playback.Play(true));
    EXPECT_TRUE(playback.IsFixedRate());
    ASSERT_TRUE(recorder.WaitFor(Kind::Stopped));
    EXPECT_EQ(recorder.Script(), "1 2 3 4 5 E S");
    // 100 frames per second at half speed: 20 ms apart.
    ExpectNotEarly(recorder.Deliveries(), start, [](uint32_t frame) { return (frame - 1) * 20.0; });

    // Switching mode while playing carries on from the frame awaited.
    recorder.Clear();
    playback.SetSpeed(1.0);
    sequencer.SetReadFrame(1);
    ASSERT_TRUE(playback.Play(false));
    ASSERT_TRUE(recorder.WaitForFrame(1));
    EXPECT_FALSE(playback.IsFixedRate());
    ASSERT_TRUE(playback.Play(true));
    ASSERT_TRUE(recorder.WaitFor(Kind::Stopped));
    EXPECT_EQ(recorder.Script(), "1 2 3 4 5 E S");

    // No usable frame rate: fixed-rate playback is refused.
    sequencer.Header().data.frameRate = 0.0;
    EXPECT_FALSE(playback.Play(true));
    EXPECT_EQ(sequencer.GetLastError(), eKErrInvalidFrameRate);
    EXPECT_FALSE(playback.IsPlaying());
}

TEST(Playback, MaxIntervalShortensALongGapInTheRecording) {
    const std::vector<Timestamp> times =
        TimesAtMilliseconds({0, 10, 10 + kHourMs, 30 + kHourMs, 30 + 2 * kHourMs});
    FakeSequencer sequencer(times);
    Recorder recorder;
    sequencer.SetCallbacks(&recorder, 1, nullptr);
    PlaybackEngine& playback = sequencer.Playback();

    playback.SetMaxInterval(40);
    EXPECT_EQ(playback.GetMaxInterval(), 40);
    const uint64_t start = MonotonicNanoseconds();
    ASSERT_TRUE(playback.Play(false));
    ASSERT_TRUE(recorder.WaitFor(Kind::Stopped));
    EXPECT_EQ(recorder.Script(), "1 2 3 4 5 E S");
    // Each gap of an hour becomes 40 ms; the 20 ms between frames 3 and 4 stay.
    const double due[] = {0, 10, 50, 70, 110};
    ExpectNotEarly(recorder.Deliveries(), start, [&](uint32_t frame) { return due[frame - 1]; });

    playback.SetMaxInterval(0);
    EXPECT_EQ(playback.GetMaxInterval(), 0);
}

TEST(Playback, ASlowCallbackDelaysOnlyTheFramesItOverlaps) {
    std::vector<int64_t> offsets;
    for (int frame = 0; frame < 12; ++frame) offsets.push_back(frame * 10);
    const std::vector<Timestamp> times = TimesAtMilliseconds(offsets);
    FakeSequencer sequencer(times);
    Recorder recorder;
    recorder.onRead = [](uint32_t frame) {
        if (frame == 3 || frame == 8) std::this_thread::sleep_for(std::chrono::milliseconds(45));
    };
    sequencer.SetCallbacks(&recorder, 1, nullptr);

    const uint64_t start = MonotonicNanoseconds();
    ASSERT_TRUE(sequencer.Playback().Play(false));
    ASSERT_TRUE(recorder.WaitFor(Kind::Stopped));
    // Late frames are neither dropped nor made up for by delivering the rest early.
    EXPECT_EQ(recorder.Script(), "1 2 3 4 5 6 7 8 9 10 11 12 E S");
    ExpectNotEarly(recorder.Deliveries(), start, TimestampOffsets(times));
}

TEST(Playback, StopFromAnotherThreadReturnsAfterTheRunningCallback) {
    FakeSequencer sequencer(TimesAtMilliseconds({0, kHourMs, 2 * kHourMs}));
    Recorder recorder;
    std::promise<void> entered;
    std::atomic<bool> callbackDone{false};
    recorder.onRead = [&](uint32_t frame) {
        if (frame != 1) return;
        entered.set_value();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        // The callback needs the sequencer's lock while Stop waits for it.
        EXPECT_EQ(sequencer.GetReadFrame(), 1u);
        EXPECT_EQ(sequencer.GetFrameCount(), 3u);
        callbackDone = true;
    };
    sequencer.SetCallbacks(&recorder, 1, nullptr);
    PlaybackEngine& playback = sequencer.Playback();

    ASSERT_TRUE(playback.Play(false));
    ASSERT_EQ(entered.get_future().wait_for(kGuard), std::future_status::ready);
    MustReturn([&] { playback.Stop(); }, "Stop during a callback");
    EXPECT_TRUE(callbackDone) << "Stop returns after the running callback";
    EXPECT_FALSE(playback.IsPlaying());
    EXPECT_EQ(recorder.Script(), "1 S");
    EXPECT_EQ(sequencer.GetReadFrame(), 2u) << "a later Play continues with the next frame";

    // Stop also wakes a thread that waits for a frame due in an hour.
    recorder.Clear();
    ASSERT_TRUE(playback.Play(false));
    ASSERT_TRUE(recorder.WaitForFrame(2));
    MustReturn([&] { playback.Stop(); }, "Stop during a wait");
    MustReturn([&] { playback.Stop(); }, "a second Stop");
    EXPECT_EQ(recorder.Script(), "2 S") << "stopped exactly once";
}

TEST(Playback, StopFromInsideACallbackTakesEffectWhenItReturns) {
    FakeSequencer sequencer(TimesAtMilliseconds({0, 1, 2, 3, 4}));
    Recorder recorder;
    bool playingAfterStop = true;
    std::atomic<bool> stopReturned{false};
    recorder.onRead = [&](uint32_t frame) {
        if (frame != 2) return;
        sequencer.Playback().Stop();
        stopReturned = true;
        playingAfterStop = sequencer.Playback().IsPlaying();
    };
    sequencer.SetCallbacks(&recorder, 1, nullptr);
    PlaybackEngine& playback = sequencer.Playback();

    ASSERT_TRUE(playback.Play(false));
    ASSERT_TRUE(recorder.WaitFor(Kind::Stopped));
    EXPECT_TRUE(stopReturned);
    EXPECT_FALSE(playingAfterStop);
    EXPECT_EQ(recorder.Script(), "1 2 S");

    // Played again from another thread: the finished thread is waited for, playback goes on.
    recorder.Clear();
    recorder.onRead = nullptr;
    MustReturn([&] { EXPECT_TRUE(playback.Play(false)); }, "Play after a stop from a callback");
    ASSERT_TRUE(recorder.WaitFor(Kind::Stopped));
    EXPECT_EQ(recorder.Script(), "3 4 5 E S");

    // A Stop undone by Play within the same callback leaves playback running.
    recorder.Clear();
    recorder.onRead = [&](uint32_t frame) {
        if (frame != 1) return;
        sequencer.Playback().Stop();
        EXPECT_TRUE(sequencer.Playback().Play(true));
    };
    sequencer.SetReadFrame(1);
    ASSERT_TRUE(playback.Play(false));
    ASSERT_TRUE(recorder.WaitFor(Kind::Stopped));
    EXPECT_EQ(recorder.Script(), "1 2 3 4 5 E S");
    EXPECT_TRUE(playback.IsFixedRate());

    // Play from OnPlaybackStopped plays again.
    recorder.Clear();
    recorder.onRead = nullptr;
    int replays = 1;
    recorder.onStopped = [&] {
        if (replays-- == 0) return;
        sequencer.SetReadFrame(4);
        EXPECT_TRUE(sequencer.Playback().Play(false));
    };
    sequencer.SetReadFrame(5);
    ASSERT_TRUE(playback.Play(false));
    ASSERT_TRUE(recorder.WaitFor(Kind::Stopped, 2));
    EXPECT_EQ(recorder.Script(), "5 E S 4 5 E S");
    EXPECT_FALSE(playback.IsPlaying());
}

TEST(Playback, ResynchronizeJumpsToAFrameAndDeliversItAtOnce) {
    std::vector<int64_t> offsets;
    for (int frame = 0; frame < 6; ++frame) offsets.push_back(frame * kHourMs);
    const std::vector<Timestamp> times = TimesAtMilliseconds(offsets);
    FakeSequencer sequencer(times);
    Recorder recorder;
    sequencer.SetCallbacks(&recorder, 1, nullptr);
    PlaybackEngine& playback = sequencer.Playback();
    int32_t seconds = 0;
    uint16_t milliseconds = 0;
    uint16_t microseconds = 0;

    // Not playing: the read frame is where playback would begin.
    ASSERT_TRUE(playback.Resynchronize(3));
    EXPECT_EQ(sequencer.GetReadFrame(), 3u);
    ASSERT_TRUE(playback.GetNextFrameTime(seconds, milliseconds, microseconds));
    EXPECT_EQ(seconds, times[2].seconds);
    ASSERT_TRUE(playback.Resynchronize(1));

    ASSERT_TRUE(playback.Play(false));
    ASSERT_TRUE(recorder.WaitForFrame(1));
    ASSERT_TRUE(playback.GetNextFrameTime(seconds, milliseconds, microseconds));
    EXPECT_EQ(seconds, times[1].seconds) << "frame 2 is awaited";

    ASSERT_TRUE(playback.Resynchronize(4));  // frame 4 is due an hour after frame 2
    ASSERT_TRUE(recorder.WaitForFrame(4));
    ASSERT_TRUE(playback.GetNextFrameTime(seconds, milliseconds, microseconds));
    EXPECT_EQ(seconds, times[4].seconds);

    // By time: ten minutes after frame 2 is nearest to frame 2.
    ASSERT_TRUE(playback.Resynchronize(times[1].seconds + 600, 0));
    ASSERT_TRUE(recorder.WaitForFrame(2));
    MustReturn([&] { playback.Stop(); }, "Stop");
    EXPECT_EQ(recorder.Script(), "1 4 2 S");

    FakeSequencer empty;
    EXPECT_FALSE(empty.Playback().Resynchronize(1));
    EXPECT_EQ(empty.GetLastError(), eKErrInvalidIndex);
    EXPECT_FALSE(empty.Playback().GetNextFrameTime(seconds, milliseconds, microseconds));
}

TEST(Playback, DestroyingTheSequencerStopsPlayback) {
    Recorder recorder;
    auto sequencer = std::make_unique<FakeSequencer>(TimesAtMilliseconds({0, kHourMs}));
    sequencer->SetCallbacks(&recorder, 1, nullptr);
    ASSERT_TRUE(sequencer->Playback().Play(false));
    ASSERT_TRUE(recorder.WaitForFrame(1));
    MustReturn([&] { sequencer.reset(); }, "destroying a playing sequencer");
    EXPECT_EQ(recorder.Script(), "1 S");

    // Destroyed from its own callback: the thread ends on its own, touching nothing of it.
    std::atomic<bool> destroyed{false};
    std::promise<void> playReturned;
    std::shared_future<void> mayDestroy = playReturned.get_future().share();
    Recorder selfDestroying;
    sequencer = std::make_unique<FakeSequencer>(TimesAtMilliseconds({0, 1, 2}));
    selfDestroying.onRead = [&](uint32_t) {
        mayDestroy.wait();  // not while the test thread is still inside Play
        sequencer.reset();
        destroyed = true;
    };
    sequencer->SetCallbacks(&selfDestroying, 1, nullptr);
    ASSERT_TRUE(sequencer->Playback().Play(false));
    playReturned.set_value();
    ASSERT_TRUE(selfDestroying.WaitForFrame(1));
    const auto deadline = std::chrono::steady_clock::now() + kGuard;
    while ((!destroyed || PlaybackThreadsAlive() > 0) &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(PlaybackThreadsAlive(), 0);
    EXPECT_EQ(selfDestroying.Script(), "1") << "no frame and no notification after it";
}
