// An in-process grabber manager and driver for the grab module's tests. Registered under
// CLSID_KGrabberManager, so that the module creates it instead of the real manager. Its set of
// interfaces is configurable, every call made on it is recorded in order, and it can be told
// to fail (initialisation, buffer allocation above a count, grabs after N frames, images that
// never come).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "KGrab.h"

namespace kestor::test {

struct FakeGrabberConfig {
    // Optional interfaces offered besides the manager, grabber, image format and notification
    // registration. Adjustment counts: combined 2, integer 3, double 4.
    bool binning = true, bufferStatistics = true, query = true, settings = true;
    bool adjustments = true, integerAdjustments = true, doubleAdjustments = true;
    bool advancedFeatures = true, serialPort = true, timeSource = true, frameInfo = true;

    bool initializeFails = false;
    uint32_t maxBuffers = 1000;  // SetBufferCount above this fails (0: always fails)
    int queueFailAfter = -1;     // QueueGrab fails once this many grabs succeeded (0: at once)
    uint32_t frameLimit = 0;     // after this many frames QueueGrab waits for Stop (0: no limit)
    bool waitImageNull = false;  // WaitImage never yields a buffer
    // WaitImage blocks until CancelQueuedGrabs and then yields a buffer: an image that arrives
    // after the module has told its read thread to end.
    bool imageOnlyAfterCancel = false;

    uint32_t width = 64, height = 48;  // 8-bit mono
    uint32_t frameInfoFlags = kKFrameInfoTimestamp | kKFrameInfoFrameId;

    uint32_t syncStatus = kKTimeSourceDriverSynchronized;
    int32_t gpsSupported = 1;
};

class FakeGrabber final : public IKGrabberManager {
public:
    // Registers the factory (the next manager the module creates is a FakeGrabber with `config`)
    // and unregisters it.
    static void Install(const FakeGrabberConfig& config);
    static void Uninstall();
    // The last object created, kept alive (one reference) until Uninstall.
    static FakeGrabber* Last();

    explicit FakeGrabber(const FakeGrabberConfig& config);

    // What was called, in order: "Initialize(<driver>|<key>)", "SetBufferCount(5)",
    // "GetImageSize", "Start", "Release:Grabber", ...
    std::vector<std::string> Calls() const;
    void ClearCalls();
    bool Called(const std::string& call) const;
    // The calls that start with `prefix`, in order.
    std::vector<std::string> CallsStartingWith(const std::string& prefix) const;

    // Raises a notification through the registered sink; false when none is registered.
    bool RaiseNotification(int32_t notification, int32_t action);
    bool SinkRegistered() const;
    void SetSink(IKNotificationSink* sink);
    uint64_t FramesProduced() const;
    // imageOnlyAfterCancel: whether the reader is blocked in WaitImage, and how many buffers
    // it was handed after the cancel.
    bool ReaderWaiting() const { return readerWaiting_.load(); }
    int LateImagesHandedOut() const { return lateImages_.load(); }
    int ImagesReleased() const { return releases_.load(); }
    // Frame number written into the first 8 bytes of each frame's pixels.
    static uint64_t FrameNumberIn(const uint8_t* pixels);

    // IKUnknown / IKGrabberManager
    KStatus QueryInterface(const KGuid& iid, void** out) override;
    uint32_t AddRef() override;
    uint32_t Release() override;
    KStatus GetVersion(uint32_t* version) override;
    KStatus GetDriverCount(int32_t* count) override;
    KStatus GetDriverName(int32_t index, KAbiChar* name, uint32_t capacity) override;
    KStatus IsDriverAvailable(const KAbiChar* name, int32_t* available) override;
    KStatus Initialize(const KAbiChar* driverName, const KAbiChar* settingsKey, KAbiChar* errorText,
                       uint32_t capacity) override;

    // Used by the interface objects.
    void Log(const std::string& call);
    const FakeGrabberConfig& Config() const { return config_; }

    // Streaming model.
    KStatus SetBufferCount(uint32_t count);
    KStatus QueueGrab();
    KStatus WaitImage(void** pixels);
    KStatus ReleaseImage();
    KStatus Start();
    KStatus Stop();
    KStatus CancelQueuedGrabs();
    KStatus FreeQueue();
    KStatus GetLastImageInfo(KGrabFrameInfo* info);

    uint32_t width_, height_, left_ = 0, top_ = 0;
    uint32_t binning_ = 1;

private:
    ~FakeGrabber();
    struct Parts;

    FakeGrabberConfig config_;
    std::atomic<uint32_t> refs_{1};
    Parts* parts_;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> calls_;
    IKNotificationSink* sink_ = nullptr;

    // Streaming state (under mutex_).
    uint32_t bufferCount_ = 0;
    std::vector<std::vector<uint8_t>> buffers_;
    std::deque<uint32_t> completed_;  // buffer indexes with a frame, oldest first
    int held_ = -1;                   // buffer the reader holds
    uint64_t produced_ = 0;
    uint64_t lastDelivered_ = 0;
    int grabsSucceeded_ = 0;
    bool stopped_ = true;
    bool cancelled_ = false;
    std::atomic<bool> readerWaiting_{false};
    std::atomic<int> lateImages_{0};
    std::atomic<int> releases_{0};
};

}  // namespace kestor::test
