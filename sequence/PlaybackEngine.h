// Plays a sequence back on a thread of its own: reads the frames in order and hands each to
// the application's OnImageRead at the time it is due.
#pragma once

#include <cstdint>

class KSequencer;

namespace kestor {

class PlaybackEngine {
public:
    explicit PlaybackEngine(KSequencer& sequencer);
    ~PlaybackEngine();  // stops playback
    PlaybackEngine(const PlaybackEngine&) = delete;
    PlaybackEngine& operator=(const PlaybackEngine&) = delete;

    // Starts from the sequencer's read frame (clamped into the range). `fixedRate`: frames at
    // the header's frame rate times the speed; otherwise at the intervals of their recorded
    // timestamps divided by the speed. False (with the sequencer's error set) when there is
    // nothing to play; restarting while playing switches mode and continues.
    bool Play(bool fixedRate);
    // Ends playback and returns promptly, even when called from a callback on the playback
    // thread (it then stops after that callback returns) or while a callback is slow.
    void Stop();
    bool IsPlaying() const;
    bool IsFixedRate() const;

    // Range of frames played, 1-based and inclusive; 0 as last means the last frame.
    void SetRange(uint32_t first, uint32_t last);
    void GetRange(uint32_t& first, uint32_t& last) const;
    void SetSpeed(double speed);  // ignored unless above 0
    double GetSpeed() const;
    // Frames skipped after each delivered frame (0 delivers every frame).
    void SetFrameSkip(uint32_t skip);
    uint32_t GetFrameSkip() const;
    // Longest wait between two frames in milliseconds, whatever the timestamps say (<= 0: no
    // limit). Keeps a recording with a long pause from stalling playback.
    void SetMaxInterval(int milliseconds);
    int GetMaxInterval() const;

    // Recorded timestamp of the next frame to be delivered.
    bool GetNextFrameTime(int32_t& seconds, uint16_t& milliseconds, uint16_t& microseconds);
    // Continue from this frame / from the frame nearest this time, with the clock re-based so
    // that it is delivered now.
    bool Resynchronize(uint32_t frame);
    bool Resynchronize(int32_t seconds, uint16_t milliseconds);

private:
    struct State;
    KSequencer& sequencer_;
    State* state_;
};

}  // namespace kestor
