// The buffers and the streaming protocol of the simulated camera (see IKGrabber in
// KGrabberAbi.h): frames are produced on the thread that calls QueueGrab, paced by the
// monotonic clock, by software triggers or as fast as free buffers allow, and handed to the
// thread that calls WaitImage / ReleaseImage. Knows nothing of pixel formats: a fill function
// paints each frame.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <vector>

#include "KGrabberAbi.h"
#include "platform/AlignedMemory.h"
#include "platform/Clock.h"

namespace kestor::simulated {

enum class StreamTrigger { Timer, Software };

struct StreamPacing {
    StreamTrigger trigger = StreamTrigger::Timer;
    bool freeRun = false;  // with the timer: frames as fast as buffers come back
    double frameRate = 100.0;
};

struct StreamFaults {
    uint32_t failAfterFrames = 0;  // QueueGrab fails once this many frames were grabbed
    uint32_t nullWaitEvery = 0;    // every n-th ready image is held back for one WaitImage
};

struct FrameStamp {
    uint64_t number = 0;  // frame number since Start, lost frames included
    WallTime time{};      // when the frame was exposed
};

struct StreamStatistics {
    int32_t usage = 0;  // completed, not yet released
    int32_t maxUsage = 0;
    int32_t total = 0;
    uint64_t delivered = 0;
    uint64_t lost = 0;
    uint64_t incomplete = 0;
};

class SimulatedStream {
public:
    using FillFunction = std::function<void(uint8_t* pixels, uint64_t frameNumber)>;
    using LossFunction = std::function<void()>;  // a burst of lost frames began

    static constexpr uint64_t kWaitImageTimeoutNs = 100'000'000;

    // Buffer size for a frame: whole 4096-byte blocks, so that the disk can take the buffer
    // directly.
    static size_t SlotBytes(size_t frameBytes);

    // Allocates `count` buffers for frames of `frameBytes`. kKOutOfMemory when they would
    // exceed `memoryLimit` (0: none) or cannot be had; kKFail while streaming or while a
    // buffer is in use.
    KStatus SetBufferCount(uint32_t count, size_t frameBytes, uint64_t memoryLimit);
    uint32_t BufferCount() const;

    // Begins a run: frame numbers and counters restart at 0. Buffers too small for
    // `frameBytes` (the geometry changed) are reallocated, keeping their count.
    KStatus Start(size_t frameBytes, uint64_t memoryLimit, FillFunction fill, LossFunction onLoss);
    KStatus QueueGrab();
    KStatus WaitImage(void** pixels);
    KStatus ReleaseImage();
    KStatus CancelQueuedGrabs();
    KStatus Stop();
    KStatus FreeQueue();

    void SetPacing(const StreamPacing& pacing);
    void SetFaults(const StreamFaults& faults);
    void SoftwareTrigger();

    bool IsStreaming() const;
    StreamStatistics Statistics() const;
    // The image last handed out by WaitImage; false before the first of the run.
    bool LastImage(FrameStamp& stamp) const;

private:
    enum class State { Free, Filling, Completed, Held };
    struct Buffer {
        AlignedBuffer memory;
        State state = State::Free;
        FrameStamp stamp;
    };

    KStatus AllocateLocked(uint32_t count, size_t frameBytes, uint64_t memoryLimit);
    int FindFreeLocked() const;
    bool AnyBusyLocked() const;
    // Waits for the moment the next frame is due; false when the wait was cut short (stop,
    // a change of pacing), so that the caller looks again.
    bool WaitForDueFrameLocked(std::unique_lock<std::mutex>& lock, uint64_t& due);
    WallTime WallTimeOf(uint64_t monotonicNs) const;
    void UpdateUsageLocked();

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Buffer> buffers_;
    size_t slotBytes_ = 0;
    std::deque<int> completed_;  // oldest first
    std::deque<int> held_;       // handed to the reader, oldest first

    FillFunction fill_;
    LossFunction onLoss_;
    StreamPacing pacing_;
    StreamFaults faults_;

    bool streaming_ = false;
    bool stopped_ = true;
    bool cancelled_ = false;
    uint64_t generation_ = 0;  // changes when queued frames are forgotten
    uint64_t nextFrameNumber_ = 0;
    uint64_t nextDueNs_ = 0;
    uint64_t pendingTriggers_ = 0;
    uint64_t grabs_ = 0;
    uint64_t readyWaits_ = 0;
    bool heldBackLast_ = false;
    bool inLossBurst_ = false;

    uint64_t originMonotonicNs_ = 0;
    int64_t originWallUs_ = 0;

    StreamStatistics statistics_;
    bool haveLastImage_ = false;
    FrameStamp lastImage_;
};

}  // namespace kestor::simulated
