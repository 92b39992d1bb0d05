// Acquisition buffers and the streaming protocol of IKGrabber on top of an Aravis stream.
//
// The buffers are the driver's own 4096-aligned blocks (a multiple of 4096 bytes, so that the
// disk sequencer writes them without a copy) wrapped in ArvBuffers that the stream fills in
// place. Aravis's stream thread completes buffers into its output queue and calls back; the
// queue thread (QueueGrab) takes completed buffers from there, drops and re-queues the ones
// that are not complete, and hands the good ones to the read thread (WaitImage). ReleaseImage
// gives a buffer back to the stream. Pixels are never copied.
#pragma once

#include <arv.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

#include "KGrabberAbi.h"
#include "genicam/CameraConnection.h"
#include "genicam/DriverSettings.h"
#include "genicam/FrameIdTracker.h"
#include "genicam/NotificationHub.h"
#include "platform/AlignedMemory.h"

namespace kestor::genicam {

// What the driver knows of the image last handed to the reader.
struct FrameFacts {
    uint64_t timestampNs = 0;  // since 1970-01-01 UTC
    bool deviceTime = false;   // the timestamp is the camera's (PTP) clock, else host arrival
    uint64_t frameId = 0;
};

struct FrameCounters {
    uint64_t delivered = 0;
    uint64_t lost = 0;
    uint64_t incomplete = 0;
};

class StreamEngine {
public:
    StreamEngine(CameraConnection& connection, NotificationHub& notifications);
    ~StreamEngine();
    StreamEngine(const StreamEngine&) = delete;
    StreamEngine& operator=(const StreamEngine&) = delete;

    void Configure(const DriverSettings& settings) { settings_ = settings; }

    // Creates the stream when needed and gives it `count` buffers sized for the current
    // payload. kKOutOfMemory when the memory cannot be had; refused while streaming.
    KStatus SetBufferCount(uint32_t count);
    uint32_t BufferCount() const;
    size_t BufferBytes() const { return slotBytes_; }

    // `deviceClockIsWallTime`: take frame timestamps from the camera (PTP) instead of the
    // host's arrival time.
    KStatus Start(bool deviceClockIsWallTime);
    KStatus Stop();
    KStatus QueueGrab();
    KStatus WaitImage(void** pixels);
    KStatus ReleaseImage();
    KStatus CancelQueuedGrabs();
    KStatus FreeQueue();

    // The camera stopped answering: pending and later grabs fail.
    void OnCameraLost();

    bool IsStreaming() const;
    bool LastFrame(FrameFacts& facts) const;
    // Lost frames are the gaps in the frame ids, or the stream's own count of frames that
    // found no free buffer when that is higher (frames whose ids never reached the driver).
    FrameCounters Counters() const;
    int32_t Usage();
    int32_t MaxUsage();
    // The stream's own counters (completed, failures, underruns) since the stream exists.
    void StreamStatistics(uint64_t& completed, uint64_t& failures, uint64_t& underruns) const;

private:
    static void OnStreamEvent(void* self, ArvStreamCallbackType type, ArvBuffer* buffer);
    bool CreateStream(std::string& error);
    void DestroyStream();
    void ApplyStreamOptions();
    // Sorts out one buffer taken from the stream; true when it was handed to the reader.
    bool TakeCompleted(ArvBuffer* buffer, std::unique_lock<std::mutex>& lock);
    int32_t UsageLocked();

    CameraConnection& connection_;
    NotificationHub& notifications_;
    DriverSettings settings_;

    ArvStream* stream_ = nullptr;
    std::vector<AlignedBuffer> memory_;
    size_t slotBytes_ = 0;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<ArvBuffer*> ready_;  // complete, waiting for the reader
    ArvBuffer* held_ = nullptr;     // with the reader until ReleaseImage
    FrameFacts heldFacts_;
    bool haveHeldFacts_ = false;
    uint64_t doneEvents_ = 0;  // buffers the stream completed (callback count)
    bool streaming_ = false;
    bool stopped_ = true;
    bool cancelled_ = false;
    bool lost_ = false;
    bool deviceTime_ = false;
    FrameIdTracker frameIds_;
    FrameCounters counters_;
    uint64_t underrunsAtStart_ = 0;  // the stream's own count when streaming started
    int32_t maxUsage_ = 0;
};

}  // namespace kestor::genicam
