#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
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

struct Event {
    std::string token;  // the frame number, or E (end of sequence), R (end of range), S (stopped)
    uint32_t frame;     // 0 unless a frame was delivered
    unsigned int id;
    void* context;
    uint64_t atNs;
    std::thread::id thread;
    const KImage* image;
};

// Records every callback; stops at the n-th end of range or sequence (0: never).
class Recorder : public KSequencerCallbacks {
public:
    int stopAtEnd = 1;
    std::function<void(uint32_t frame)> onRead;  // runs after the delivery is recorded
    std::function<void()> onStopped;

    void OnImageRead(KImage* image, unsigned int id, void* context) override {
        const uint32_t frame = FakeSequencer::FrameIn(image);
        Record(std::to_string(frame), id, context, frame, image);
        if (onRead) onRead(frame);
    }
    void OnEndOfSequence(bool& stop, unsigned int id, void* context) override {
        stop = End("E", id, context);
    }
    void OnEndOfPlaybackRange(bool& stop, unsigned int id, void* context) override {
        stop = End("R", id, context);
    }
    void OnPlaybackStopped(unsigned int id, void* context) override {
        Record("S", id, context);
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
    // The tokens in order, as text: "1 2 3 E S".
    std::string Script() const {
        std::string script;
        for (const Event& event : Events()) script += (script.empty() ? "" : " ") + event.token;
        return script;
    }
    // Waits (bounded) until `token` was recorded `count` times.
    bool WaitFor(const std::string& token, long count = 1) const {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kGuard, [&] {
            return std::count_if(events_.begin(), events_.end(),
                                 [&](const Event& event) { return event.token == token; }) >= count;
        });
    }

private:
    bool End(const char* token, unsigned int id, void* context) {
        Record(token, id, context);
        std::lock_guard lock(mutex_);
        return stopAtEnd > 0 && ++ends_ >= stopAtEnd;
    }
    void Record(std::string token, unsigned int id, void* context, uint32_t frame = 0,
                const KImage* image = nullptr) {
        const uint64_t now = MonotonicNanoseconds();
        std::lock_guard lock(mutex_);
        events_.push_back(
            {std::move(token), frame, id, context, now, std::this_thread::get_id(), image});
        changed_.notify_all();
    }

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Event> events_;
    int ends_ = 0;
};

// Runs `action` and aborts the run if it does not return: a deadlock must not hang CTest.
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

// Every frame recorded was delivered no earlier than `start` plus its playback offset.
void ExpectNotEarly(const Recorder& recorder, uint64_t start,
                    const std::function<double(uint32_t frame)>& offsetMs) {
    for (const Event& event : recorder.Events()) {
        if (event.frame == 0) continue;
        const double dueNs = static_cast<double>(start) + offsetMs(event.frame) * 1e6;
        EXPECT_GE(static_cast<double>(event.atNs), dueNs) << "frame " << event.frame << " early";
    }
}

// The offset of frame n's timestamp from frame 1's, in milliseconds of playback.
std::function<double(uint32_t)> TimestampOffsets(const std::vector<Timestamp>& times,
                                                 double speed = 1.0) {
    return [times, speed](uint32_t frame) {
        return (ToMicroseconds(times[frame - 1]) - ToMicroseconds(times[0])) / 1000.0 / speed;
    };
}

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

class Playback : public ::testing::Test {
protected:
    void SetUp() override { sequencer_.SetCallbacks(&recorder_, 1, nullptr); }
    // Plays until OnPlaybackStopped and returns the script of the run.
    std::string PlayRun(bool fixedRate = false) {
        recorder_.Clear();
        if (!playback_.Play(fixedRate)) return "Play failed";
        if (!recorder_.WaitFor("S")) return "never stopped: " + recorder_.Script();
        return recorder_.Script();
    }

    Recorder recorder_;  // outlives the sequencer, whose destruction stops playback
    FakeSequencer sequencer_;
    PlaybackEngine& playback_ = sequencer_.Playback();
};

}  // namespace

TEST_F(Playback, DeliversInOrderOnItsOwnThreadAndLoopsUntilTheCallbackStops) {
    sequencer_.SetTimes(TimesAtMilliseconds({0, 5, 10, 15}));
    int token = 0;
    sequencer_.SetCallbacks(&recorder_, 42, &token);
    EXPECT_EQ(PlayRun(), "1 2 3 4 E S");
    const std::vector<Event> events = recorder_.Events();
    for (const Event& event : events) {
        EXPECT_EQ(event.id, 42u);
        EXPECT_EQ(event.context, &token);
        EXPECT_NE(event.thread, std::this_thread::get_id()) << "callbacks run on their own thread";
        EXPECT_EQ(event.thread, events.front().thread) << "one playback thread";
    }
    EXPECT_EQ(events[0].image, events[3].image) << "one image, reused for every frame";
    EXPECT_FALSE(playback_.IsPlaying());
    EXPECT_EQ(sequencer_.GetReadFrame(), 4u) << "stopping at the end leaves the last frame";

    sequencer_.SetTimes({});  // nothing to play: no thread, the sequencer tells why
    EXPECT_FALSE(playback_.Play(false));
    EXPECT_EQ(sequencer_.GetLastError(), eKErrInvalidIndex);
    EXPECT_FALSE(playback_.IsPlaying());
}

TEST_F(Playback, RangeFrameSkipAndTheEndsDecideWhatIsPlayed) {
    sequencer_.SetTimes(TimesAtMilliseconds({0, 1, 2, 3, 4, 5, 6}));
    struct Case {
        uint32_t first, last, skip, readFrame;
        int stopAtEnd;
        const char* script;
    };
    const Case cases[] = {
        // Starts at the read frame; `stop` left false loops to the range start.
        {1, 0, 0, 6, 2, "6 7 E 1 2 3 4 5 6 7 E S"},
        // The end of the sequence only when the range runs to the last frame; a read frame
        // outside the range is clamped into it; 0 as the first frame is raised to 1.
        {2, 4, 0, 1, 2, "2 3 4 R 2 3 4 R S"},
        {5, 0, 0, 1, 1, "5 6 7 E S"},
        {0, 3, 0, 6, 1, "3 R S"},
        // Skipped frames; a skip past the end reports the end.
        {2, 0, 1, 2, 2, "2 4 6 E 2 4 6 E S"},
        {1, 0, 100, 6, 1, "6 E S"},
    };
    for (const Case& c : cases) {
        playback_.SetRange(c.first, c.last);
        playback_.SetFrameSkip(c.skip);
        sequencer_.SetReadFrame(c.readFrame);
        recorder_.stopAtEnd = c.stopAtEnd;
        EXPECT_EQ(PlayRun(), c.script) << c.first << "-" << c.last << " skip " << c.skip;
    }
    uint32_t first = 0, last = 99;
    playback_.SetRange(4, 2);
    playback_.GetRange(first, last);
    EXPECT_EQ(first, 2u);
    EXPECT_EQ(last, 4u) << "a reversed range is put in order";
}

TEST_F(Playback, TimestampedFramesAreNeverDeliveredBeforeTheyAreDue) {
    const std::vector<Timestamp> times =
        TimesAtMilliseconds({0, 15, 40, 41, 70, 110, 111, 150, 160, 170, 180, 190});
    sequencer_.SetTimes(times);
    // A slow callback delays the frames it overlaps; late frames are neither dropped nor made
    // up for by delivering the rest early.
    recorder_.onRead = [](uint32_t frame) {
        if (frame == 3 || frame == 8) std::this_thread::sleep_for(std::chrono::milliseconds(45));
    };
    const std::string everyFrame = "1 2 3 4 5 6 7 8 9 10 11 12 E S";
    uint64_t start = MonotonicNanoseconds();
    EXPECT_EQ(PlayRun(), everyFrame);
    ExpectNotEarly(recorder_, start, TimestampOffsets(times));

    // Half speed doubles every offset; only speeds above 0 are taken.
    recorder_.onRead = nullptr;
    playback_.SetSpeed(0.5);
    for (double ignored : {0.0, -2.0, std::numeric_limits<double>::quiet_NaN()})
        playback_.SetSpeed(ignored);
    EXPECT_EQ(playback_.GetSpeed(), 0.5);
    sequencer_.SetReadFrame(1);
    start = MonotonicNanoseconds();
    EXPECT_EQ(PlayRun(), everyFrame);
    ExpectNotEarly(recorder_, start, TimestampOffsets(times, 0.5));

    // Skipped frames keep their timing.
    playback_.SetSpeed(1.0);
    playback_.SetFrameSkip(3);
    sequencer_.SetReadFrame(1);
    start = MonotonicNanoseconds();
    EXPECT_EQ(PlayRun(), "1 5 9 E S");
    ExpectNotEarly(recorder_, start, TimestampOffsets(times));

    // The maximum interval shortens each long gap; shorter gaps stay.
    sequencer_.SetTimes(TimesAtMilliseconds({0, 10, 10 + kHourMs, 30 + kHourMs}));
    playback_.SetFrameSkip(0);
    playback_.SetMaxInterval(40);
    start = MonotonicNanoseconds();
    EXPECT_EQ(PlayRun(), "1 2 3 4 E S");
    const double due[] = {0, 10, 50, 70};
    ExpectNotEarly(recorder_, start, [&](uint32_t frame) { return due[frame - 1]; });
}

TEST_F(Playback, FixedRateFollowsTheFrameRateRatherThanTheTimestamps) {
    // An hour between frames: timestamped playback would still be waiting for frame 2.
    sequencer_.SetTimes(TimesAtMilliseconds({0, kHourMs, 2 * kHourMs, 3 * kHourMs, 4 * kHourMs}));
    sequencer_.SetFrameRate(100.0);
    playback_.SetSpeed(0.5);
    const uint64_t start = MonotonicNanoseconds();
    EXPECT_EQ(PlayRun(true), "1 2 3 4 5 E S");
    EXPECT_TRUE(playback_.IsFixedRate());
    ExpectNotEarly(recorder_, start, [](uint32_t frame) { return (frame - 1) * 20.0; });

    // Switching mode while playing carries on from the frame awaited.
    recorder_.Clear();
    playback_.SetSpeed(1.0);
    sequencer_.SetReadFrame(1);
    ASSERT_TRUE(playback_.Play(false));
    ASSERT_TRUE(recorder_.WaitFor("1"));
    EXPECT_FALSE(playback_.IsFixedRate());
    ASSERT_TRUE(playback_.Play(true));
    ASSERT_TRUE(recorder_.WaitFor("S"));
    EXPECT_EQ(recorder_.Script(), "1 2 3 4 5 E S");

    sequencer_.Header().data.frameRate = 0.0;  // no usable rate: refused
    EXPECT_FALSE(playback_.Play(true));
    EXPECT_EQ(sequencer_.GetLastError(), eKErrInvalidFrameRate);
    EXPECT_FALSE(playback_.IsPlaying());
}

TEST_F(Playback, StopFromAnotherThreadReturnsAfterTheRunningCallback) {
    sequencer_.SetTimes(TimesAtMilliseconds({0, kHourMs, 2 * kHourMs}));
    std::promise<void> entered;
    std::atomic<bool> callbackDone{false};
    recorder_.onRead = [&](uint32_t frame) {
        if (frame != 1) return;
        entered.set_value();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_EQ(sequencer_.GetReadFrame(), 1u);  // needs the lock while Stop waits
        callbackDone = true;
    };
    ASSERT_TRUE(playback_.Play(false));
    ASSERT_EQ(entered.get_future().wait_for(kGuard), std::future_status::ready);
    MustReturn([&] { playback_.Stop(); }, "Stop during a callback");
    EXPECT_TRUE(callbackDone) << "Stop returns after the running callback";
    EXPECT_FALSE(playback_.IsPlaying());
    EXPECT_EQ(recorder_.Script(), "1 S");
    EXPECT_EQ(sequencer_.GetReadFrame(), 2u) << "a later Play continues with the next frame";

    // Stop also wakes a thread that waits for a frame due in an hour.
    recorder_.Clear();
    ASSERT_TRUE(playback_.Play(false));
    ASSERT_TRUE(recorder_.WaitFor("2"));
    MustReturn([&] { playback_.Stop(); }, "Stop during a wait");
    MustReturn([&] { playback_.Stop(); }, "a second Stop");
    EXPECT_EQ(recorder_.Script(), "2 S") << "stopped exactly once";
}

TEST_F(Playback, StopAndPlayFromInsideCallbacks) {
    sequencer_.SetTimes(TimesAtMilliseconds({0, 1, 2, 3, 4}));
    bool playingAfterStop = true;
    recorder_.onRead = [&](uint32_t frame) {
        if (frame != 2) return;
        playback_.Stop();  // takes effect when the callback returns
        playingAfterStop = playback_.IsPlaying();
    };
    EXPECT_EQ(PlayRun(), "1 2 S");
    EXPECT_FALSE(playingAfterStop);

    // Played again from another thread: the finished thread is waited for.
    recorder_.onRead = nullptr;
    recorder_.Clear();
    MustReturn([&] { EXPECT_TRUE(playback_.Play(false)); }, "Play after a stop from a callback");
    ASSERT_TRUE(recorder_.WaitFor("S"));
    EXPECT_EQ(recorder_.Script(), "3 4 5 E S");

    // A Stop undone by Play within the same callback leaves playback running.
    recorder_.onRead = [&](uint32_t frame) {
        if (frame != 1) return;
        playback_.Stop();
        EXPECT_TRUE(playback_.Play(true));
    };
    sequencer_.SetReadFrame(1);
    EXPECT_EQ(PlayRun(), "1 2 3 4 5 E S");
    EXPECT_TRUE(playback_.IsFixedRate());

    // Play from OnPlaybackStopped plays again. The last run's thread is joined first: it may
    // still be inside OnPlaybackStopped while the handler is replaced.
    MustReturn([&] { playback_.Stop(); }, "joining the finished thread");
    recorder_.onRead = nullptr;
    int replays = 1;
    recorder_.onStopped = [&] {
        if (replays-- == 0) return;
        sequencer_.SetReadFrame(4);
        EXPECT_TRUE(playback_.Play(false));
    };
    sequencer_.SetReadFrame(5);
    recorder_.Clear();
    ASSERT_TRUE(playback_.Play(false));
    ASSERT_TRUE(recorder_.WaitFor("S", 2));
    EXPECT_EQ(recorder_.Script(), "5 E S 4 5 E S");
}

TEST_F(Playback, ResynchronizeJumpsToAFrameAndDeliversItAtOnce) {
    std::vector<int64_t> offsets;
    for (int frame = 0; frame < 6; ++frame) offsets.push_back(frame * kHourMs);
    const std::vector<Timestamp> times = TimesAtMilliseconds(offsets);
    sequencer_.SetTimes(times);
    int32_t seconds = 0;
    uint16_t milliseconds = 0, microseconds = 0;
    const auto nextFrameSeconds = [&] {
        EXPECT_TRUE(playback_.GetNextFrameTime(seconds, milliseconds, microseconds));
        return seconds;
    };

    // Not playing: the read frame is where playback would begin.
    ASSERT_TRUE(playback_.Resynchronize(3));
    EXPECT_EQ(sequencer_.GetReadFrame(), 3u);
    EXPECT_EQ(nextFrameSeconds(), times[2].seconds);
    ASSERT_TRUE(playback_.Resynchronize(1));

    ASSERT_TRUE(playback_.Play(false));
    ASSERT_TRUE(recorder_.WaitFor("1"));
    EXPECT_EQ(nextFrameSeconds(), times[1].seconds) << "frame 2 is awaited";
    ASSERT_TRUE(playback_.Resynchronize(4));  // frame 4 is due an hour after frame 2
    ASSERT_TRUE(recorder_.WaitFor("4"));
    EXPECT_EQ(nextFrameSeconds(), times[4].seconds);

    // By time: ten minutes after frame 2 is nearest to frame 2.
    ASSERT_TRUE(playback_.Resynchronize(times[1].seconds + 600, 0));
    ASSERT_TRUE(recorder_.WaitFor("2"));
    MustReturn([&] { playback_.Stop(); }, "Stop");
    EXPECT_EQ(recorder_.Script(), "1 4 2 S");

    sequencer_.SetTimes({});
    EXPECT_FALSE(playback_.Resynchronize(1));
    EXPECT_EQ(sequencer_.GetLastError(), eKErrInvalidIndex);
    EXPECT_FALSE(playback_.GetNextFrameTime(seconds, milliseconds, microseconds));
}

TEST_F(Playback, DestroyingTheSequencerStopsPlayback) {
    Recorder recorder;
    auto sequencer = std::make_unique<FakeSequencer>(TimesAtMilliseconds({0, kHourMs}));
    sequencer->SetCallbacks(&recorder, 1, nullptr);
    ASSERT_TRUE(sequencer->Playback().Play(false));
    ASSERT_TRUE(recorder.WaitFor("1"));
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
    ASSERT_TRUE(selfDestroying.WaitFor("1"));
    const auto deadline = std::chrono::steady_clock::now() + kGuard;
    while ((!destroyed || PlaybackThreadsAlive() > 0) &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(PlaybackThreadsAlive(), 0);
    EXPECT_EQ(selfDestroying.Script(), "1") << "no frame and no notification after it";
}
