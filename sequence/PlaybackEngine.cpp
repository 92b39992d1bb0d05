#include "sequence/PlaybackEngine.h"

#include <algorithm>
#include <cmath>
#include <mutex>
#include <utility>

#include "platform/Thread.h"
#include "sequence/KSequencer.h"
#include "sequence/PlaybackShared.h"

namespace kestor {

namespace {

bool CalledFromPlaybackThread(PlaybackShared& shared) {
    std::lock_guard lock(shared.mutex);
    return shared.OnPlaybackThread();
}

// The helpers below are called with the shared mutex held.

void SwitchMode(PlaybackShared& shared, bool fixedRate) {
    shared.fixedRate = fixedRate;
    shared.Changed();
}

void BeginRun(PlaybackShared& shared, bool fixedRate, uint32_t start) {
    shared.fixedRate = fixedRate;
    shared.playing = true;
    shared.stopRequested = false;
    shared.nextFrame = start;
    shared.resyncPending = true;
    shared.Changed();
}

// Play called from a callback on the playback thread. False while another thread is stopping
// playback (it waits for this thread to end).
bool PlayFromCallback(PlaybackShared& shared, bool fixedRate, uint32_t start) {
    if (shared.joining || shared.ownerGone) return false;
    if (shared.playing) {
        shared.stopRequested = false;  // undoes a Stop made earlier in the same callback
        SwitchMode(shared, fixedRate);
    } else {
        BeginRun(shared, fixedRate, start);  // from OnPlaybackStopped: the thread runs again
    }
    return true;
}

}  // namespace

struct PlaybackEngine::State {
    explicit State(KSequencer& sequencer) : shared(std::make_shared<PlaybackShared>(sequencer)) {}

    std::shared_ptr<PlaybackShared> shared;
    // Serialises Play and Stop of threads other than the playback thread, which may wait for
    // it to end. The playback thread never takes it: a callback that called Play or Stop
    // would otherwise wait for a thread that waits for it.
    std::mutex control;
    Thread thread;
};

PlaybackEngine::PlaybackEngine(KSequencer& sequencer)
    : sequencer_(sequencer), state_(new State(sequencer)) {}

PlaybackEngine::~PlaybackEngine() {
    PlaybackShared& shared = *state_->shared;
    bool onPlaybackThread;
    {
        std::lock_guard lock(shared.mutex);
        onPlaybackThread = shared.OnPlaybackThread();
        if (onPlaybackThread) {
            // Destroyed from a callback: the thread cannot be waited for here. It keeps the
            // shared state alive and ends, without a word, when the callback returns.
            shared.ownerGone = true;
            shared.stopRequested = true;
            shared.Changed();
        }
    }
    if (!onPlaybackThread) Stop();
    state_->thread.Join();  // lets a thread that destroys its own engine go
    delete state_;
}

bool PlaybackEngine::Play(bool fixedRate) {
    PlaybackShared& shared = *state_->shared;
    const uint32_t count = sequencer_.GetFrameCount();
    if (count == 0) return sequencer_.SetError(eKErrInvalidIndex);
    if (fixedRate && !(sequencer_.GetFrameRate() > 0.0))
        return sequencer_.SetError(eKErrInvalidFrameRate);

    if (CalledFromPlaybackThread(shared)) {
        const uint32_t start = sequencer_.GetReadFrame();
        bool accepted;
        {
            std::lock_guard lock(shared.mutex);
            accepted = PlayFromCallback(shared, fixedRate, start);
        }
        return accepted || sequencer_.SetError(eKErrWrongMode);
    }

    std::lock_guard control(state_->control);
    {
        std::lock_guard lock(shared.mutex);
        if (shared.Active()) {
            SwitchMode(shared, fixedRate);
            return true;
        }
        shared.joining = true;
    }
    // A thread still finishing (stopped from its own callback) is waited for first; it moves
    // the playback position on as it finishes.
    state_->thread.Join();
    const uint32_t start = sequencer_.GetReadFrame();
    {
        std::lock_guard lock(shared.mutex);
        shared.joining = false;
        BeginRun(shared, fixedRate, start);
    }
    if (!state_->thread.Start([keep = state_->shared] { RunPlayback(keep); }, "kestor-playback",
                              ThreadPriority::AboveNormal)) {
        std::lock_guard lock(shared.mutex);
        shared.playing = false;
        return sequencer_.SetError(eKErrOutOfMemory);
    }
    return true;
}

void PlaybackEngine::Stop() {
    PlaybackShared& shared = *state_->shared;
    {
        std::lock_guard lock(shared.mutex);
        if (shared.OnPlaybackThread()) {
            // From a callback: the thread ends when the callback returns; whoever plays next
            // or destroys the engine waits for it.
            if (shared.playing) shared.stopRequested = true;
            shared.Changed();
            return;
        }
    }
    std::lock_guard control(state_->control);
    {
        std::lock_guard lock(shared.mutex);
        shared.stopRequested = true;
        shared.joining = true;
        shared.Changed();
    }
    // Waits with no lock of the sequencer held: the callback running now may need it.
    state_->thread.Join();
    std::lock_guard lock(shared.mutex);
    shared.joining = false;
}

bool PlaybackEngine::IsPlaying() const {
    std::lock_guard lock(state_->shared->mutex);
    return state_->shared->Active();
}

bool PlaybackEngine::IsFixedRate() const {
    std::lock_guard lock(state_->shared->mutex);
    return state_->shared->fixedRate;
}

void PlaybackEngine::SetRange(uint32_t first, uint32_t last) {
    if (first == 0) first = 1;
    if (last != 0 && last < first) std::swap(first, last);
    PlaybackShared& shared = *state_->shared;
    std::lock_guard lock(shared.mutex);
    shared.rangeFirst = first;
    shared.rangeLast = last;
    shared.Changed();
}

void PlaybackEngine::GetRange(uint32_t& first, uint32_t& last) const {
    std::lock_guard lock(state_->shared->mutex);
    first = state_->shared->rangeFirst;
    last = state_->shared->rangeLast;
}

void PlaybackEngine::SetSpeed(double speed) {
    if (!(speed > 0.0) || !std::isfinite(speed)) return;
    PlaybackShared& shared = *state_->shared;
    std::lock_guard lock(shared.mutex);
    shared.speed = speed;
    shared.Changed();
}

double PlaybackEngine::GetSpeed() const {
    std::lock_guard lock(state_->shared->mutex);
    return state_->shared->speed;
}

void PlaybackEngine::SetFrameSkip(uint32_t skip) {
    PlaybackShared& shared = *state_->shared;
    std::lock_guard lock(shared.mutex);
    shared.frameSkip = skip;
    shared.Changed();
}

uint32_t PlaybackEngine::GetFrameSkip() const {
    std::lock_guard lock(state_->shared->mutex);
    return state_->shared->frameSkip;
}

void PlaybackEngine::SetMaxInterval(int milliseconds) {
    PlaybackShared& shared = *state_->shared;
    std::lock_guard lock(shared.mutex);
    shared.maxIntervalMs = milliseconds;
    shared.Changed();
}

int PlaybackEngine::GetMaxInterval() const {
    std::lock_guard lock(state_->shared->mutex);
    return state_->shared->maxIntervalMs;
}

bool PlaybackEngine::GetNextFrameTime(int32_t& seconds, uint16_t& milliseconds,
                                      uint16_t& microseconds) {
    const uint32_t count = sequencer_.GetFrameCount();
    if (count == 0) return sequencer_.SetError(eKErrInvalidIndex);
    PlaybackShared& shared = *state_->shared;
    bool playing;
    uint32_t frame;
    FrameRange range;
    {
        std::lock_guard lock(shared.mutex);
        playing = shared.Active();
        frame = shared.nextFrame;  // 0, the start of the range, clamps to it
        range = EffectiveRange(shared.rangeFirst, shared.rangeLast, count);
    }
    if (!playing) frame = sequencer_.GetReadFrame();  // where Play would begin
    uint32_t recordedSeconds = 0;
    if (!sequencer_.ReadTimestamp(range.Clamp(frame), recordedSeconds, milliseconds, microseconds))
        return false;
    seconds = static_cast<int32_t>(recordedSeconds);
    return true;
}

bool PlaybackEngine::Resynchronize(uint32_t frame) {
    const uint32_t count = sequencer_.GetFrameCount();
    if (count == 0) return sequencer_.SetError(eKErrInvalidIndex);
    frame = std::clamp<uint32_t>(frame, 1, count);
    PlaybackShared& shared = *state_->shared;
    {
        std::lock_guard lock(shared.mutex);
        if (shared.Active()) {
            shared.nextFrame = frame;
            shared.resyncPending = true;
            shared.Changed();
            return true;
        }
    }
    sequencer_.SetReadFrame(frame);  // where the next Play begins
    return true;
}

bool PlaybackEngine::Resynchronize(int32_t seconds, uint16_t milliseconds) {
    uint32_t frame = 0;
    if (!sequencer_.GetIndexNear(seconds, milliseconds, 0, frame)) return false;
    return Resynchronize(frame);
}

}  // namespace kestor
