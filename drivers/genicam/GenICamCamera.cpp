#include "genicam/GenICamCamera.h"

#include "KGrab.h"
#include "genicam/TextOut.h"

namespace kestor::genicam {

GenICamCamera::GenICamCamera() : stream_(connection_, notifications_) {
    connection_.SetControlLostHandler([this] { OnControlLost(); });
}

GenICamCamera::~GenICamCamera() {
    // The members go one by one; a late control-lost must not reach a stream already gone.
    connection_.StopWatching();
    stream_.Stop();
    notifications_.Register(nullptr);
}

bool GenICamCamera::QueryOwnInterface(const KGuid& iid, void** out) {
    if (Offer<IKGrabberDriver>(this, iid, IID_IKUnknown, out) ||
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
        Offer<IKFrameInfo>(this, iid, IID_IKFrameInfo, out)) {
        return true;
    }
    // Without a PTP clock the camera has no time source to report.
    return hasPtp_ && Offer<IKTimeSource>(this, iid, IID_IKTimeSource, out);
}

KStatus GenICamCamera::Initialize(const KAbiChar* settingsKey, KAbiChar* errorText,
                                  uint32_t capacity) {
    CopyText(errorText, capacity, "");
    std::lock_guard<std::recursive_mutex> lock(Lock());
    if (initialized_) return kKOk;
    std::string error;
    if (!LoadDriverSettings(settingsKey, settings_, error) ||
        !connection_.Open(settings_.camera, error)) {
        CopyText(errorText, capacity, error);
        return kKFail;
    }
    stream_.Configure(settings_);
    catalog_.Build(connection_.Genicam());
    hasPtp_ = PtpEnableFeature() != nullptr;
    initialized_ = true;
    return kKOk;
}

void GenICamCamera::OnControlLost() {
    stream_.OnCameraLost();
    notifications_.Raise(eKNotificationCameraLost, eKActionStopStreaming, 0);
}

bool GenICamCamera::IsReady() const {
    return initialized_ && !connection_.IsControlLost();
}

// --- IKGrabber -------------------------------------------------------------------------------

KStatus GenICamCamera::GetName(KAbiChar* name, uint32_t capacity) {
    if (name == nullptr) return kKPointer;
    CopyText(name, capacity, "GenICam " + connection_.Description());
    return kKOk;
}

KStatus GenICamCamera::ShowProperties(void*, int32_t) {
    return kKNotImplemented;  // no dialog of its own: the advanced features serve instead
}

KStatus GenICamCamera::SetBufferCount(uint32_t count) {
    if (!IsReady()) return kKFail;
    std::lock_guard<std::recursive_mutex> lock(Lock());
    return stream_.SetBufferCount(count);
}

KStatus GenICamCamera::GetBufferCount(uint32_t* count) {
    if (count == nullptr) return kKPointer;
    *count = stream_.BufferCount();
    return kKOk;
}

KStatus GenICamCamera::GetDeliveredFrames(uint64_t* frames) {
    if (frames == nullptr) return kKPointer;
    *frames = stream_.Counters().delivered;
    return kKOk;
}

KStatus GenICamCamera::GetDroppedFrames(uint64_t* frames) {
    if (frames == nullptr) return kKPointer;
    const FrameCounters counters = stream_.Counters();
    *frames = counters.lost + counters.incomplete;
    return kKOk;
}

KStatus GenICamCamera::ReleaseImage() {
    return stream_.ReleaseImage();
}

KStatus GenICamCamera::GetLastImageTime(uint32_t* seconds, uint16_t* milliseconds,
                                        uint16_t* microseconds) {
    if (seconds == nullptr || milliseconds == nullptr || microseconds == nullptr) return kKPointer;
    FrameFacts facts;
    if (!stream_.LastFrame(facts)) return kKFail;
    *seconds = static_cast<uint32_t>(facts.timestampNs / 1000000000u);
    *milliseconds = static_cast<uint16_t>(facts.timestampNs / 1000000u % 1000u);
    *microseconds = static_cast<uint16_t>(facts.timestampNs / 1000u % 1000u);
    return kKOk;
}

KStatus GenICamCamera::GetLastImageNumber(uint64_t* number) {
    if (number == nullptr) return kKPointer;
    FrameFacts facts;
    if (!stream_.LastFrame(facts)) return kKFail;
    *number = facts.frameId;
    return kKOk;
}

KStatus GenICamCamera::QueueGrab() {
    return stream_.QueueGrab();
}

KStatus GenICamCamera::WaitImage(void** pixels) {
    return stream_.WaitImage(pixels);
}

KStatus GenICamCamera::Start() {
    if (!IsReady()) return kKFail;
    std::lock_guard<std::recursive_mutex> lock(Lock());
    return stream_.Start(IsPtpActive());
}

KStatus GenICamCamera::CancelQueuedGrabs() {
    return stream_.CancelQueuedGrabs();
}

KStatus GenICamCamera::Stop() {
    std::lock_guard<std::recursive_mutex> lock(Lock());
    return stream_.Stop();
}

KStatus GenICamCamera::FreeQueue() {
    return stream_.FreeQueue();
}

// --- IKBufferStatistics ----------------------------------------------------------------------

KStatus GenICamCamera::GetBufferUsage(int32_t* buffers) {
    if (buffers == nullptr) return kKPointer;
    *buffers = stream_.Usage();
    return kKOk;
}

KStatus GenICamCamera::GetMaxBufferUsage(int32_t* buffers) {
    if (buffers == nullptr) return kKPointer;
    *buffers = stream_.MaxUsage();
    return kKOk;
}

KStatus GenICamCamera::GetTotalBufferCount(int32_t* buffers) {
    if (buffers == nullptr) return kKPointer;
    *buffers = static_cast<int32_t>(stream_.BufferCount());
    return kKOk;
}

// --- IKNotificationRegistration, IKQuery ------------------------------------------------------

KStatus GenICamCamera::Register(IKNotificationSink* sink) {
    notifications_.Register(sink);
    return kKOk;
}

KStatus GenICamCamera::Query(int32_t query, int32_t* result) {
    if (result == nullptr) return kKPointer;
    *result = 0;
    switch (query) {
        case kQueryConnected:
            *result = IsReady() ? 1 : 0;
            return kKOk;
        case kQueryPayloadSize: {
            if (!IsReady()) return kKFail;
            std::lock_guard<std::recursive_mutex> lock(Lock());
            *result = static_cast<int32_t>(arv_camera_get_payload(connection_.Camera(), nullptr));
            return kKOk;
        }
        case kQueryPtpActive:
            if (!IsReady()) return kKFail;
            *result = IsPtpActive() ? 1 : 0;
            return kKOk;
        case kQueryBufferBytes:
            *result = static_cast<int32_t>(stream_.BufferBytes());
            return kKOk;
        default:
            return kKNotImplemented;
    }
}

// --- IKFrameInfo -----------------------------------------------------------------------------

KStatus GenICamCamera::GetLastImageInfo(KGrabFrameInfo* info) {
    if (info == nullptr) return kKPointer;
    FrameFacts facts;
    info->flags = 0;
    if (!stream_.LastFrame(facts)) return kKFail;
    info->seconds = static_cast<uint32_t>(facts.timestampNs / 1000000000u);
    info->milliseconds = static_cast<uint16_t>(facts.timestampNs / 1000000u % 1000u);
    info->microseconds = static_cast<uint16_t>(facts.timestampNs / 1000u % 1000u);
    info->frameId = facts.frameId;
    info->flags =
        kKFrameInfoTimestamp | kKFrameInfoFrameId | (facts.deviceTime ? kKFrameInfoDeviceTime : 0u);
    return kKOk;
}

KStatus GenICamCamera::GetBayerOrigin(uint32_t* origin) {
    if (origin == nullptr) return kKPointer;
    if (!IsReady()) return kKFail;
    const PixelFormatInfo info = CurrentPixelFormat();
    if (info.bayerOrigin == kNoBayerOrigin) return kKFail;
    *origin = static_cast<uint32_t>(info.bayerOrigin);
    return kKOk;
}

KStatus GenICamCamera::GetFrameCounters(uint64_t* delivered, uint64_t* lost, uint64_t* incomplete) {
    if (delivered == nullptr || lost == nullptr || incomplete == nullptr) return kKPointer;
    const FrameCounters counters = stream_.Counters();
    *delivered = counters.delivered;
    *lost = counters.lost;
    *incomplete = counters.incomplete;
    return kKOk;
}

}  // namespace kestor::genicam
