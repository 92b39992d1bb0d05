// What the playback engine and its thread share. The thread holds the state as well as the
// engine, so that it outlives an engine destroyed from inside one of its own callbacks.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

#include "KImage.h"

class KSequencer;

namespace kestor {

// The frames a pass plays, for a sequence that holds frames: first <= last <= count.
struct FrameRange {
    uint32_t first = 1;
    uint32_t last = 1;

    uint32_t Clamp(uint32_t frame) const { return std::clamp(frame, first, last); }
};

// The range as set (first from 1, last 0 meaning the last frame), fitted to `count` > 0 frames.
inline FrameRange EffectiveRange(uint32_t first, uint32_t last, uint32_t count) {
    FrameRange range;
    range.first = std::clamp<uint32_t>(first, 1, count);
    range.last = last == 0 ? count : std::min(last, count);
    range.last = std::max(range.last, range.first);
    return range;
}

struct PlaybackShared {
    explicit PlaybackShared(KSequencer& owner) : sequencer(owner) {}

    KSequencer& sequencer;

    // Guards every field below except the image. Never held while calling the sequencer or
    // the application: a callback may call back into the engine, and another thread may call
    // the engine while holding the sequencer's lock.
    std::mutex mutex;
    std::condition_variable wake;  // a waiting thread re-examines the fields

    // Settings.
    bool fixedRate = false;
    uint32_t rangeFirst = 1;
    uint32_t rangeLast = 0;  // 0: the last frame
    double speed = 1.0;
    uint32_t frameSkip = 0;
    int maxIntervalMs = 0;

    // Progress of the thread.
    bool playing = false;        // from Play until the thread has finished the run
    bool stopRequested = false;  // the run ends before the next frame
    bool joining = false;        // another thread waits for the playback thread to end
    bool ownerGone = false;      // the engine was destroyed from its own callback
    uint32_t nextFrame = 1;      // the frame to deliver next; 0: the start of the range
    bool resyncPending = false;  // nextFrame is to be delivered at once
    uint64_t changes = 0;        // counts changes that may alter the frame awaited
    std::thread::id thread;      // the playback thread while it runs

    // The frame handed to OnImageRead; only the playback thread touches it.
    KImage image;

    bool Active() const { return playing && !stopRequested; }
    // With the mutex held: makes a waiting thread plan its frame again.
    void Changed() {
        ++changes;
        wake.notify_all();
    }
    // With the mutex held.
    bool OnPlaybackThread() const { return thread == std::this_thread::get_id(); }
};

// The body of the playback thread: plays until stopped, then notifies the application.
void RunPlayback(std::shared_ptr<PlaybackShared> shared);

}  // namespace kestor
