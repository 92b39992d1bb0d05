#include "simulated/SimulatedCamera.h"

#include <cstring>

#include "KGrab.h"
#include "KTestPattern.h"
#include "platform/DebugOutput.h"
#include "platform/WideString.h"
#include "simulated/PixelFormats.h"

namespace kestor::simulated {
namespace {

void SetText(KAbiChar* text, uint32_t capacity, const std::string& utf8) {
    KCopyName(text, capacity, Utf8ToWide(utf8).c_str());
}

}  // namespace

SimulatedCamera::SimulatedCamera() {
    ApplyToStream(config_);
}

bool SimulatedCamera::QueryOwnInterface(const KGuid& iid, void** out) {
    return Offer<IKGrabber>(this, iid, IID_IKUnknown, out) ||
           Offer<IKGrabberDriver>(this, iid, IID_IKGrabberDriver, out) ||
           Offer<IKGrabber>(this, iid, IID_IKGrabber, out) ||
           Offer<IKImageFormat>(this, iid, IID_IKImageFormat, out) ||
           Offer<IKBinning>(this, iid, IID_IKBinning, out) ||
           Offer<IKBufferStatistics>(this, iid, IID_IKBufferStatistics, out) ||
           Offer<IKNotificationRegistration>(this, iid, IID_IKNotificationRegistration, out) ||
           Offer<IKQuery>(this, iid, IID_IKQuery, out) ||
           Offer<IKSettings>(this, iid, IID_IKSettings, out) ||
           Offer<IKAdjustments>(this, iid, IID_IKAdjustments, out) ||
           Offer<IKAdvancedFeatures>(this, iid, IID_IKAdvancedFeatures, out) ||
           Offer<IKSerialPort>(this, iid, IID_IKSerialPort, out) ||
           Offer<IKTimeSource>(this, iid, IID_IKTimeSource, out) ||
           Offer<IKFrameInfo>(this, iid, IID_IKFrameInfo, out) ||
           Offer<IKDigitalIO>(this, iid, IID_IKDigitalIO, out) ||
           Offer<IKVideoOutput>(this, iid, IID_IKVideoOutput, out);
}

// --- configuration ---------------------------------------------------------------------------

SimulatedConfig SimulatedCamera::Config() const {
    std::lock_guard lock(configMutex_);
    return config_;
}

KStatus SimulatedCamera::Change(const std::function<bool(SimulatedConfig&)>& edit, bool geometry) {
    uint32_t timeSourceBefore = 0, timeSourceAfter = 0;
    {
        std::lock_guard lock(configMutex_);
        if (geometry && stream_.IsStreaming()) return kKFail;
        SimulatedConfig changed = config_;
        if (!edit(changed)) return kKInvalidArgument;
        timeSourceBefore = config_.timeSourceStatus;
        timeSourceAfter = changed.timeSourceStatus;
        config_ = changed;
        store_.Save(config_);  // best effort: a store that cannot be written keeps the change live
        ApplyToStream(config_);
    }
    if (timeSourceBefore != timeSourceAfter) RefreshTimeSourceStatus();
    return kKOk;
}

void SimulatedCamera::ApplyToStream(const SimulatedConfig& config) {
    StreamPacing pacing;
    pacing.trigger = config.triggerMode == TriggerMode::Software ? StreamTrigger::Software
                                                                 : StreamTrigger::Timer;
    // An external trigger is simulated by a generator at the frame rate.
    pacing.freeRun = config.freeRun && config.triggerMode == TriggerMode::FreeRunning;
    pacing.frameRate = config.frameRate;
    stream_.SetPacing(pacing);
    stream_.SetFaults(StreamFaults{config.failAfterFrames, config.nullWaitEvery});
    testPattern_.store(static_cast<uint32_t>(config.testPattern), std::memory_order_relaxed);
}

void SimulatedCamera::Notify(int32_t notification, int32_t suggestedAction) {
    std::lock_guard lock(sinkMutex_);
    if (sink_ != nullptr) sink_->OnNotification(notification, suggestedAction, 0);
}

// --- IKGrabberDriver --------------------------------------------------------------------------

KStatus SimulatedCamera::Initialize(const KAbiChar* settingsKey, KAbiChar* errorText,
                                    uint32_t capacity) {
    SetText(errorText, capacity, "");
    if (stream_.IsStreaming()) {
        SetText(errorText, capacity, "The simulated camera is streaming.");
        return kKFail;
    }
    SimulatedConfig loaded;
    std::lock_guard lock(configMutex_);
    const RegStatus status = store_.Load(SimulatedSettingsStore::KeyPath(settingsKey), loaded);
    if (status != RegStatus::Ok) {
        SetText(errorText, capacity,
                std::string("The settings of the simulated camera could not be read: ") +
                    RegStatusText(status));
        return kKFail;
    }
    config_ = loaded;
    ApplyToStream(config_);
    knownTimeSourceStatus_.store(config_.timeSourceStatus);
    if (config_.failInitialize) {
        SetText(errorText, capacity,
                "The simulated camera was told to fail its initialisation (setting "
                "\"FailInitialize\").");
        return kKFail;
    }
    return kKOk;
}

// --- IKGrabber ------------------------------------------------------------------------------

KStatus SimulatedCamera::GetName(KAbiChar* name, uint32_t capacity) {
    if (name == nullptr) return kKPointer;
    KCopyName(name, capacity, kDriverName);
    return kKOk;
}

KStatus SimulatedCamera::ShowProperties(void* /*parentWindow*/, int32_t streaming) {
    // No window of its own: the settings are written to the debug output instead.
    const SimulatedConfig config = Config();
    const WideString line = WideFormatString(
        u"%s: %dx%d at %d,%d, binning %d, %s, %s, %g fps%s, exposure %d us, gain %g dB%s\n",
        kDriverName, config.width, config.height, config.offsetX, config.offsetY, config.binning,
        PixelFormatAt(config.pixelFormat).name, TriggerModeName(config.triggerMode),
        config.frameRate, config.freeRun ? u" (free run)" : u"", config.exposureUs, config.gainDb,
        streaming ? u", streaming" : u"");
    DebugOutput(line.c_str());
    return kKOk;
}

KStatus SimulatedCamera::SetBufferCount(uint32_t count) {
    if (count > Limits::kMaxBuffers) return kKOutOfMemory;
    const SimulatedConfig config = Config();
    return stream_.SetBufferCount(count, DescribeImage(config).sizeBytes, config.memoryLimit);
}

KStatus SimulatedCamera::GetBufferCount(uint32_t* count) {
    if (count == nullptr) return kKPointer;
    *count = stream_.BufferCount();
    return kKOk;
}

KStatus SimulatedCamera::GetDeliveredFrames(uint64_t* frames) {
    if (frames == nullptr) return kKPointer;
    *frames = stream_.Statistics().delivered;
    return kKOk;
}

KStatus SimulatedCamera::GetDroppedFrames(uint64_t* frames) {
    if (frames == nullptr) return kKPointer;
    *frames = stream_.Statistics().lost;
    return kKOk;
}

KStatus SimulatedCamera::ReleaseImage() {
    return stream_.ReleaseImage();
}

KStatus SimulatedCamera::GetLastImageTime(uint32_t* seconds, uint16_t* milliseconds,
                                          uint16_t* microseconds) {
    if (seconds == nullptr || milliseconds == nullptr || microseconds == nullptr) {
        return kKPointer;
    }
    FrameStamp stamp;
    if (!stream_.LastImage(stamp)) return kKFail;
    *seconds = static_cast<uint32_t>(stamp.time.seconds);
    *milliseconds = stamp.time.milliseconds;
    *microseconds = stamp.time.microseconds;
    return kKOk;
}

KStatus SimulatedCamera::GetLastImageNumber(uint64_t* number) {
    if (number == nullptr) return kKPointer;
    FrameStamp stamp;
    if (!stream_.LastImage(stamp)) return kKFail;
    *number = stamp.number;
    return kKOk;
}

KStatus SimulatedCamera::QueueGrab() {
    return stream_.QueueGrab();
}

KStatus SimulatedCamera::WaitImage(void** pixels) {
    return stream_.WaitImage(pixels);
}

SimulatedStream::FillFunction SimulatedCamera::MakeFill(const KImageDescription& description) {
    return [this, description](uint8_t* pixels, uint64_t frameNumber) {
        switch (static_cast<TestPattern>(testPattern_.load(std::memory_order_relaxed))) {
            case TestPattern::Black:
                std::memset(pixels, 0x00, description.sizeBytes);
                break;
            case TestPattern::White:
                std::memset(pixels, 0xFF, description.sizeBytes);
                break;
            default:
                KTestPatternFill(pixels, description, frameNumber);
                break;
        }
    };
}

KStatus SimulatedCamera::Start() {
    // Holding the configuration lock keeps geometry edits out until the stream counts as
    // streaming.
    std::lock_guard lock(configMutex_);
    const KImageDescription description = DescribeImage(config_);
    return stream_.Start(description.sizeBytes, config_.memoryLimit, MakeFill(description),
                         [this] { Notify(eKNotificationFrameLost, eKActionNone); });
}

KStatus SimulatedCamera::CancelQueuedGrabs() {
    return stream_.CancelQueuedGrabs();
}

KStatus SimulatedCamera::Stop() {
    return stream_.Stop();
}

KStatus SimulatedCamera::FreeQueue() {
    return stream_.FreeQueue();
}

// --- IKImageFormat and IKBinning --------------------------------------------------------------

KStatus SimulatedCamera::GetImageSize(uint32_t* width, uint32_t* height, uint32_t* left,
                                      uint32_t* top) {
    const SimulatedConfig config = Config();
    if (width != nullptr) *width = config.width;
    if (height != nullptr) *height = config.height;
    if (left != nullptr) *left = config.offsetX;
    if (top != nullptr) *top = config.offsetY;
    return kKOk;
}

KStatus SimulatedCamera::SetImageSize(uint32_t width, uint32_t height, uint32_t left,
                                      uint32_t top) {
    return Change(
        [&](SimulatedConfig& config) {
            if (!IsValidGeometry(width, height, left, top, config.binning)) return false;
            config.width = width;
            config.height = height;
            config.offsetX = left;
            config.offsetY = top;
            return true;
        },
        true);
}

KStatus SimulatedCamera::GetImageSizeBytes(uint32_t* bytes) {
    if (bytes == nullptr) return kKPointer;
    *bytes = DescribeImage(Config()).sizeBytes;
    return kKOk;
}

KStatus SimulatedCamera::GetBitDepth(uint32_t* bits) {
    if (bits == nullptr) return kKPointer;
    *bits = DescribeImage(Config()).bitDepth;
    return kKOk;
}

KStatus SimulatedCamera::GetRealBitDepth(uint32_t* bits) {
    if (bits == nullptr) return kKPointer;
    *bits = DescribeImage(Config()).bitDepthReal;
    return kKOk;
}

KStatus SimulatedCamera::GetImageFormat(uint32_t* format) {
    if (format == nullptr) return kKPointer;
    *format = DescribeImage(Config()).format;
    return kKOk;
}

KStatus SimulatedCamera::GetBinning(uint32_t* factor) {
    if (factor == nullptr) return kKPointer;
    *factor = Config().binning;
    return kKOk;
}

KStatus SimulatedCamera::SetBinning(uint32_t factor) {
    return Change(
        [&](SimulatedConfig& config) {
            if (!IsValidBinning(factor)) return false;
            RescaleGeometry(config, factor);
            return true;
        },
        true);
}

// --- statistics, notifications, queries, frame info -------------------------------------------

KStatus SimulatedCamera::GetBufferUsage(int32_t* buffers) {
    if (buffers == nullptr) return kKPointer;
    *buffers = stream_.Statistics().usage;
    return kKOk;
}

KStatus SimulatedCamera::GetMaxBufferUsage(int32_t* buffers) {
    if (buffers == nullptr) return kKPointer;
    *buffers = stream_.Statistics().maxUsage;
    return kKOk;
}

KStatus SimulatedCamera::GetTotalBufferCount(int32_t* buffers) {
    if (buffers == nullptr) return kKPointer;
    *buffers = stream_.Statistics().total;
    return kKOk;
}

KStatus SimulatedCamera::Register(IKNotificationSink* sink) {
    std::lock_guard lock(sinkMutex_);  // waits for a notification under way
    sink_ = sink;
    return kKOk;
}

KStatus SimulatedCamera::Query(int32_t query, int32_t* result) {
    if (result == nullptr) return kKPointer;
    *result = 0;
    switch (query) {
        case kQueryStreaming:
            *result = stream_.IsStreaming() ? 1 : 0;
            return kKOk;
        case kQuerySensorWidth:
            *result = static_cast<int32_t>(Limits::kSensorWidth);
            return kKOk;
        case kQuerySensorHeight:
            *result = static_cast<int32_t>(Limits::kSensorHeight);
            return kKOk;
        case kQueryIsBayer:
            *result = DeliveredBayerOrigin(Config()) >= 0 ? 1 : 0;
            return kKOk;
        case kQueryFramesLost:
            *result = static_cast<int32_t>(stream_.Statistics().lost);
            return kKOk;
        default:
            return kKInvalidArgument;
    }
}

KStatus SimulatedCamera::GetLastImageInfo(KGrabFrameInfo* info) {
    if (info == nullptr) return kKPointer;
    if (info->size < sizeof(KGrabFrameInfo)) return kKInvalidArgument;
    FrameStamp stamp;
    if (!stream_.LastImage(stamp)) return kKFail;
    info->flags = kKFrameInfoTimestamp | kKFrameInfoFrameId;  // host time, not the device's
    info->seconds = static_cast<uint32_t>(stamp.time.seconds);
    info->milliseconds = stamp.time.milliseconds;
    info->microseconds = stamp.time.microseconds;
    info->frameId = stamp.number;
    return kKOk;
}

KStatus SimulatedCamera::GetBayerOrigin(uint32_t* origin) {
    if (origin == nullptr) return kKPointer;
    const int32_t delivered = DeliveredBayerOrigin(Config());
    if (delivered < 0) return kKFail;
    *origin = static_cast<uint32_t>(delivered);
    return kKOk;
}

KStatus SimulatedCamera::GetFrameCounters(uint64_t* delivered, uint64_t* lost,
                                          uint64_t* incomplete) {
    const StreamStatistics statistics = stream_.Statistics();
    if (delivered != nullptr) *delivered = statistics.delivered;
    if (lost != nullptr) *lost = statistics.lost;
    if (incomplete != nullptr) *incomplete = statistics.incomplete;
    return kKOk;
}

}  // namespace kestor::simulated
