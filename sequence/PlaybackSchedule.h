// When each frame of a playback is due, as absolute times on the monotonic clock. Due times are
// measured from an anchor frame rather than from the previous delivery, so a late delivery
// (a slow callback, a slow disk) does not push the frames after it back.
#pragma once

#include <cstdint>

namespace kestor {

// The settings that shape the schedule.
struct PlaybackTiming {
    bool fixedRate = false;  // frames at the frame rate rather than at their timestamps
    double speed = 1.0;      // above 0
    double frameRate = 0.0;  // frames per second of the recording
    int maxIntervalMs = 0;   // longest wait between two frames; <= 0: no limit

    bool operator==(const PlaybackTiming&) const = default;
};

// One frame placed on the schedule, not yet delivered.
struct PlannedFrame {
    uint32_t frame = 0;
    int64_t timeUs = 0;    // recorded timestamp in microseconds
    uint64_t dueNs = 0;    // monotonic time at which it may be delivered
    bool anchors = false;  // later frames are measured from this one
};

class PlaybackSchedule {
public:
    // The next frame is due at once and later frames follow it (playback starts or jumps).
    void Restart();
    // The next frame starts a new pass over the range: it follows the last delivered frame
    // after one frame period, since its timestamp says nothing about the jump back.
    void BeginPass();

    // When `frame` (recorded at `timeUs`) is due. Changes nothing: a wait that is interrupted
    // plans the frame again with the settings of that moment.
    PlannedFrame Plan(uint32_t frame, int64_t timeUs, const PlaybackTiming& timing,
                      uint64_t nowNs) const;
    // The planned frame was delivered: it becomes the reference for the next one.
    void Delivered(const PlannedFrame& planned, const PlaybackTiming& timing);

private:
    struct Point {
        uint32_t frame = 0;
        int64_t timeUs = 0;
        uint64_t dueNs = 0;
    };

    bool started_ = false;  // a frame was delivered since the last Restart
    bool newPass_ = false;
    Point previous_;
    Point anchor_;
    PlaybackTiming anchorTiming_;
};

}  // namespace kestor
