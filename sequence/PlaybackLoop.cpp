// The playback thread: reads the frames of the range in order, waits until each is due and
// hands it to the application, then decides what follows it.
//
// - Past the end of the range (after the frame skip) one notification is made: the end of
//   the sequence when the range runs to the last frame, the end of the range otherwise. Its
//   `stop` left false starts a new pass at the range start one frame period later.
// - The sequencer's read frame is the frame being delivered during OnImageRead and the frame
//   to come between frames, so that Play after Stop continues without repeating a frame.
//   Stopping at the end of the range leaves it on the last frame delivered.
// - A frame that cannot be read, or a sequence that lost its frames, ends playback.
#include <chrono>
#include <utility>

#include "platform/Clock.h"
#include "sequence/KSequencer.h"
#include "sequence/PlaybackSchedule.h"
#include "sequence/PlaybackShared.h"

namespace kestor {
namespace {

int64_t ToMicroseconds(uint32_t seconds, uint16_t milliseconds, uint16_t microseconds) {
    return int64_t{static_cast<int32_t>(seconds)} * 1000000 + int64_t{milliseconds} * 1000 +
           microseconds;
}

// The application's callbacks as registered at the moment of the call.
struct Receiver {
    explicit Receiver(const KSequencer& sequencer)
        : callbacks(sequencer.Callbacks()),
          id(sequencer.CallbackId()),
          context(sequencer.CallbackContext()) {}
    KSequencerCallbacks* callbacks;
    unsigned int id;
    void* context;
};

class PlaybackLoop {
public:
    explicit PlaybackLoop(std::shared_ptr<PlaybackShared> shared)
        : keepAlive_(std::move(shared)), shared_(*keepAlive_), sequencer_(shared_.sequencer) {}

    void Run();

private:
    enum class Wake { Due, Replan, Stop };

    // What the thread is to do next, copied under the lock.
    struct Pending {
        uint32_t frame = 0;
        uint64_t changes = 0;
        PlaybackTiming timing;
        uint32_t rangeFirst = 1;
        uint32_t rangeLast = 0;
        uint32_t frameSkip = 0;
    };

    void PlayUntilStopped();
    Pending TakePending();
    Wake WaitUntilDue(uint64_t dueNs, uint64_t changes);
    // After OnImageRead: moves on to the next frame, or handles the end of the range. False
    // when playback ends.
    bool Advance(uint32_t delivered);
    bool EndOfRange(const FrameRange& range, uint32_t count);

    std::shared_ptr<PlaybackShared> keepAlive_;
    PlaybackShared& shared_;
    KSequencer& sequencer_;
    PlaybackSchedule schedule_;
};

void PlaybackLoop::Run() {
    {
        std::lock_guard lock(shared_.mutex);
        shared_.thread = std::this_thread::get_id();
    }
    for (;;) {
        schedule_.Restart();
        PlayUntilStopped();
        {
            std::lock_guard lock(shared_.mutex);
            shared_.playing = false;
            // The sequencer, and maybe the callbacks object, went with the engine.
            if (shared_.ownerGone) {
                shared_.thread = {};
                return;
            }
        }
        const Receiver receiver(sequencer_);
        receiver.callbacks->OnPlaybackStopped(receiver.id, receiver.context);
        std::lock_guard lock(shared_.mutex);
        // Play called from OnPlaybackStopped starts the next run on this thread.
        if (shared_.Active() && !shared_.ownerGone && !shared_.joining) continue;
        shared_.playing = false;
        shared_.thread = {};
        return;
    }
}

PlaybackLoop::Pending PlaybackLoop::TakePending() {
    std::lock_guard lock(shared_.mutex);
    Pending pending;
    pending.frame = shared_.nextFrame;
    if (std::exchange(shared_.resyncPending, false)) schedule_.Restart();
    pending.changes = shared_.changes;
    pending.timing.fixedRate = shared_.fixedRate;
    pending.timing.speed = shared_.speed;
    pending.timing.maxIntervalMs = shared_.maxIntervalMs;
    pending.rangeFirst = shared_.rangeFirst;
    pending.rangeLast = shared_.rangeLast;
    pending.frameSkip = shared_.frameSkip;
    return pending;
}

void PlaybackLoop::PlayUntilStopped() {
    uint32_t loaded = 0;  // the frame the image holds
    for (;;) {
        {
            std::lock_guard lock(shared_.mutex);
            if (!shared_.Active() || shared_.ownerGone) return;
        }
        Pending pending = TakePending();
        const uint32_t count = sequencer_.GetFrameCount();
        if (count == 0) return;
        const FrameRange range = EffectiveRange(pending.rangeFirst, pending.rangeLast, count);
        const uint32_t frame = range.Clamp(pending.frame);
        pending.timing.frameRate = sequencer_.GetFrameRate();

        uint32_t seconds = 0;
        uint16_t milliseconds = 0;
        uint16_t microseconds = 0;
        if (!sequencer_.ReadTimestamp(frame, seconds, milliseconds, microseconds)) return;
        // Read before waiting, so that the frame is ready when it is due.
        if (loaded != frame) {
            if (!sequencer_.Read(&shared_.image, frame)) return;
            loaded = frame;
        }
        const PlannedFrame planned =
            schedule_.Plan(frame, ToMicroseconds(seconds, milliseconds, microseconds),
                           pending.timing, MonotonicNanoseconds());
        const Wake wake = WaitUntilDue(planned.dueNs, pending.changes);
        if (wake == Wake::Stop) return;
        if (wake == Wake::Replan) continue;

        schedule_.Delivered(planned, pending.timing);
        sequencer_.SetReadFrame(frame);
        {
            // Until the callback returns, the frame expected next is the one that follows.
            const uint64_t following = uint64_t{frame} + 1 + pending.frameSkip;
            std::lock_guard lock(shared_.mutex);
            if (!shared_.resyncPending)
                shared_.nextFrame = following <= range.last ? static_cast<uint32_t>(following) : 0;
        }
        const Receiver receiver(sequencer_);
        receiver.callbacks->OnImageRead(&shared_.image, receiver.id, receiver.context);
        loaded = 0;  // the application may have changed the image
        if (!Advance(frame)) return;
    }
}

PlaybackLoop::Wake PlaybackLoop::WaitUntilDue(uint64_t dueNs, uint64_t changes) {
    std::unique_lock lock(shared_.mutex);
    for (;;) {
        if (!shared_.Active() || shared_.ownerGone) return Wake::Stop;
        if (shared_.resyncPending || shared_.changes != changes) return Wake::Replan;
        // Checked on the clock that the schedule uses, whatever woke the thread: a frame is
        // never handed over before its time.
        const uint64_t now = MonotonicNanoseconds();
        if (now >= dueNs) return Wake::Due;
        shared_.wake.wait_for(lock, std::chrono::nanoseconds(dueNs - now));
    }
}

bool PlaybackLoop::Advance(uint32_t delivered) {
    uint32_t rangeFirst;
    uint32_t rangeLast;
    uint32_t frameSkip;
    {
        std::lock_guard lock(shared_.mutex);
        if (shared_.ownerGone) return false;
        if (shared_.resyncPending) return true;  // the callback chose the next frame
        rangeFirst = shared_.rangeFirst;
        rangeLast = shared_.rangeLast;
        frameSkip = shared_.frameSkip;
    }
    const uint32_t count = sequencer_.GetFrameCount();
    if (count == 0) return false;
    const FrameRange range = EffectiveRange(rangeFirst, rangeLast, count);
    const uint64_t next = uint64_t{delivered} + 1 + frameSkip;
    if (next > range.last) return EndOfRange(range, count);
    {
        std::lock_guard lock(shared_.mutex);
        if (shared_.resyncPending) return true;
        shared_.nextFrame = static_cast<uint32_t>(next);
    }
    // Between frames the playback position is the frame to come, so that playback started
    // again after a stop continues where it left off.
    sequencer_.SetReadFrame(static_cast<uint32_t>(next));
    return true;
}

bool PlaybackLoop::EndOfRange(const FrameRange& range, uint32_t count) {
    {
        std::lock_guard lock(shared_.mutex);
        if (!shared_.Active() || shared_.ownerGone) return false;
    }
    // One notification per end: the end of the sequence when the range runs to the last
    // frame, the end of the range otherwise.
    bool stop = false;
    const Receiver receiver(sequencer_);
    if (range.last == count)
        receiver.callbacks->OnEndOfSequence(stop, receiver.id, receiver.context);
    else
        receiver.callbacks->OnEndOfPlaybackRange(stop, receiver.id, receiver.context);
    if (stop) return false;

    uint32_t rangeFirst;
    uint32_t rangeLast;
    {
        std::lock_guard lock(shared_.mutex);
        if (shared_.ownerGone) return false;
        if (shared_.resyncPending) return true;
        shared_.nextFrame = 0;  // the start of the range, as it is when the pass begins
        rangeFirst = shared_.rangeFirst;
        rangeLast = shared_.rangeLast;
    }
    schedule_.BeginPass();
    const uint32_t frames = sequencer_.GetFrameCount();
    if (frames > 0) sequencer_.SetReadFrame(EffectiveRange(rangeFirst, rangeLast, frames).first);
    return true;
}

}  // namespace

void RunPlayback(std::shared_ptr<PlaybackShared> shared) {
    PlaybackLoop(std::move(shared)).Run();
}

}  // namespace kestor
