#include "genicam/StreamEngine.h"

#include <algorithm>
#include <chrono>

#include "KGrab.h"

namespace kestor::genicam {
namespace {

// How long the queue thread sleeps between looks at its flags when no frame comes.
constexpr auto kQueuePoll = std::chrono::milliseconds(100);
// The socket buffer when none is configured: room for a burst of frames while the stream
// thread is descheduled.
constexpr size_t kMinSocketBuffer = 8u * 1024u * 1024u;

size_t RoundUp(size_t value, size_t multiple) {
    return (value + multiple - 1) / multiple * multiple;
}

bool IsIncomplete(ArvBufferStatus status) {
    return status == ARV_BUFFER_STATUS_MISSING_PACKETS || status == ARV_BUFFER_STATUS_TIMEOUT ||
           status == ARV_BUFFER_STATUS_SIZE_MISMATCH || status == ARV_BUFFER_STATUS_WRONG_PACKET_ID;
}

}  // namespace

StreamEngine::StreamEngine(CameraConnection& connection, NotificationHub& notifications)
    : connection_(connection), notifications_(notifications) {}

StreamEngine::~StreamEngine() {
    DestroyStream();
}

void StreamEngine::OnStreamEvent(void* self, ArvStreamCallbackType type, ArvBuffer*) {
    if (type != ARV_STREAM_CALLBACK_TYPE_BUFFER_DONE) return;
    auto* engine = static_cast<StreamEngine*>(self);
    {
        std::lock_guard<std::mutex> lock(engine->mutex_);
        ++engine->doneEvents_;
    }
    engine->changed_.notify_all();
}

void StreamEngine::ApplyStreamOptions() {
    ArvCamera* camera = connection_.Camera();
    if (!connection_.IsGigEVision()) return;
    if (settings_.packetSize > 0) {
        GError* error = nullptr;
        arv_camera_gv_set_packet_size(camera, static_cast<gint>(settings_.packetSize), &error);
        g_clear_error(&error);
    }
    const size_t socketBuffer = settings_.socketBuffer > 0
                                    ? settings_.socketBuffer
                                    : std::max(kMinSocketBuffer, 2 * slotBytes_);
    g_object_set(stream_, "packet-resend",
                 settings_.packetResend ? ARV_GV_STREAM_PACKET_RESEND_ALWAYS
                                        : ARV_GV_STREAM_PACKET_RESEND_NEVER,
                 "socket-buffer", ARV_GV_STREAM_SOCKET_BUFFER_FIXED, "socket-buffer-size",
                 static_cast<gint>(std::min<size_t>(socketBuffer, kMaxSocketBuffer)), nullptr);
    if (settings_.frameRetentionMs > 0) {
        g_object_set(stream_, "frame-retention",
                     static_cast<guint>(settings_.frameRetentionMs * 1000u), nullptr);
    }
}

bool StreamEngine::CreateStream(std::string& error) {
    if (connection_.IsGigEVision()) {
        // Aravis falls back to an ordinary socket by itself where the process may not open a
        // packet socket.
        arv_gv_device_set_stream_options(ARV_GV_DEVICE(connection_.Device()),
                                         settings_.packetSocket
                                             ? ARV_GV_STREAM_OPTION_NONE
                                             : ARV_GV_STREAM_OPTION_PACKET_SOCKET_DISABLED);
    }
    GError* gerror = nullptr;
    stream_ =
        arv_camera_create_stream(connection_.Camera(), &StreamEngine::OnStreamEvent, this, &gerror);
    if (stream_ == nullptr) {
        error = TakeErrorText(gerror);
        return false;
    }
    ApplyStreamOptions();
    return true;
}

void StreamEngine::DestroyStream() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ready_.clear();
        held_ = nullptr;
        haveHeldFacts_ = false;
    }
    // Outside the lock: the stream thread may be in our callback until it has joined.
    if (stream_ != nullptr) g_object_unref(stream_);
    stream_ = nullptr;
    memory_.clear();
    slotBytes_ = 0;
}

KStatus StreamEngine::SetBufferCount(uint32_t count) {
    if (count == 0) return kKInvalidArgument;
    if (!connection_.IsOpen() || connection_.IsControlLost()) return kKFail;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (streaming_ || held_ != nullptr) return kKFail;
    }
    GError* gerror = nullptr;
    const guint payload = arv_camera_get_payload(connection_.Camera(), &gerror);
    if (gerror != nullptr || payload == 0) {
        g_clear_error(&gerror);
        return kKFail;
    }
    DestroyStream();
    const size_t bytes = RoundUp(payload, kDirectIoAlignment);
    std::vector<AlignedBuffer> memory(count);
    for (AlignedBuffer& block : memory) {
        if (!block.Resize(bytes)) return kKOutOfMemory;
    }
    slotBytes_ = bytes;
    std::string error;
    if (!CreateStream(error)) {
        slotBytes_ = 0;
        return kKFail;
    }
    memory_ = std::move(memory);
    for (AlignedBuffer& block : memory_) {
        // The stream owns the ArvBuffer; the memory stays ours (preallocated, never freed by
        // Aravis).
        arv_stream_push_buffer(stream_, arv_buffer_new(slotBytes_, block.Data()));
    }
    return kKOk;
}

uint32_t StreamEngine::BufferCount() const {
    return static_cast<uint32_t>(memory_.size());
}

KStatus StreamEngine::Start(bool deviceClockIsWallTime) {
    if (connection_.IsControlLost()) return kKFail;
    if (stream_ == nullptr) return kKFail;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (streaming_) return kKOk;
    }
    // A new geometry or pixel format may need bigger buffers.
    const guint payload = arv_camera_get_payload(connection_.Camera(), nullptr);
    if (payload > slotBytes_) {
        const KStatus status = SetBufferCount(BufferCount());
        if (KFailed(status)) return status;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (ArvBuffer* buffer : ready_) arv_stream_push_buffer(stream_, buffer);
        ready_.clear();
        stopped_ = false;
        cancelled_ = false;
        deviceTime_ = deviceClockIsWallTime;
        counters_ = FrameCounters();
        maxUsage_ = 0;
        frameIds_.Reset();
        uint64_t completed = 0, failures = 0;
        StreamStatistics(completed, failures, underrunsAtStart_);
        streaming_ = true;
    }
    GError* gerror = nullptr;
    arv_camera_start_acquisition(connection_.Camera(), &gerror);
    if (gerror != nullptr) {
        g_clear_error(&gerror);
        std::lock_guard<std::mutex> lock(mutex_);
        streaming_ = false;
        stopped_ = true;
        return kKFail;
    }
    return kKOk;
}

KStatus StreamEngine::Stop() {
    bool wasStreaming = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        wasStreaming = streaming_;
        streaming_ = false;
        stopped_ = true;
    }
    changed_.notify_all();
    // A camera that is gone would only make the stop command wait for its timeouts.
    if (wasStreaming && !connection_.IsControlLost()) {
        GError* gerror = nullptr;
        arv_camera_stop_acquisition(connection_.Camera(), &gerror);
        g_clear_error(&gerror);
    }
    return kKOk;
}

void StreamEngine::OnCameraLost() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        lost_ = true;
    }
    changed_.notify_all();
}

bool StreamEngine::TakeCompleted(ArvBuffer* buffer, std::unique_lock<std::mutex>& lock) {
    const ArvBufferStatus status = arv_buffer_get_status(buffer);
    if (status == ARV_BUFFER_STATUS_ABORTED || status == ARV_BUFFER_STATUS_CLEARED) {
        arv_stream_push_buffer(stream_, buffer);
        return false;
    }
    const uint64_t frameId = arv_buffer_get_frame_id(buffer);
    const uint64_t missing = frameIds_.Observe(frameId);
    counters_.lost += missing;
    if (status == ARV_BUFFER_STATUS_SUCCESS) {
        ready_.push_back(buffer);
        maxUsage_ = std::max(maxUsage_, UsageLocked());
    } else {
        if (IsIncomplete(status)) {
            ++counters_.incomplete;
        } else {
            ++counters_.lost;
        }
        arv_stream_push_buffer(stream_, buffer);
    }
    // Notifications go out without the lock: the application may call back into the driver.
    lock.unlock();
    if (missing > 0) {
        notifications_.Raise(eKNotificationFrameLost, eKActionNone, static_cast<int64_t>(missing));
    }
    if (status != ARV_BUFFER_STATUS_SUCCESS) {
        notifications_.Raise(
            IsIncomplete(status) ? eKNotificationIncompleteFrame : eKNotificationFrameLost,
            eKActionNone, static_cast<int64_t>(frameId));
    }
    if (status == ARV_BUFFER_STATUS_SUCCESS) changed_.notify_all();
    lock.lock();
    return status == ARV_BUFFER_STATUS_SUCCESS;
}

KStatus StreamEngine::QueueGrab() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        if (stopped_ || stream_ == nullptr) return kKFalse;
        if (lost_) return kKFail;
        const uint64_t seen = doneEvents_;
        lock.unlock();
        ArvBuffer* buffer = arv_stream_try_pop_buffer(stream_);
        lock.lock();
        if (buffer == nullptr) {
            changed_.wait_for(lock, kQueuePoll,
                              [&] { return stopped_ || lost_ || doneEvents_ != seen; });
            continue;
        }
        if (stopped_) {
            // Keep it for the next start rather than handing it over after Stop.
            arv_stream_push_buffer(stream_, buffer);
            return kKFalse;
        }
        if (TakeCompleted(buffer, lock)) return kKOk;
    }
}

KStatus StreamEngine::WaitImage(void** pixels) {
    if (pixels == nullptr) return kKPointer;
    *pixels = nullptr;
    std::unique_lock<std::mutex> lock(mutex_);
    if (held_ != nullptr) {
        // The reader did not give the last image back: it goes back to the stream now.
        arv_stream_push_buffer(stream_, held_);
        held_ = nullptr;
    }
    changed_.wait_for(lock, std::chrono::milliseconds(settings_.bufferTimeoutMs),
                      [&] { return cancelled_ || !ready_.empty(); });
    if (cancelled_ || ready_.empty()) return kKFalse;
    held_ = ready_.front();
    ready_.pop_front();
    heldFacts_.frameId = arv_buffer_get_frame_id(held_);
    heldFacts_.deviceTime = deviceTime_;
    heldFacts_.timestampNs =
        deviceTime_ ? arv_buffer_get_timestamp(held_) : arv_buffer_get_system_timestamp(held_);
    haveHeldFacts_ = true;
    ++counters_.delivered;
    size_t size = 0;
    *pixels = const_cast<void*>(arv_buffer_get_data(held_, &size));
    return kKOk;
}

KStatus StreamEngine::ReleaseImage() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (held_ == nullptr) return kKFalse;
    arv_stream_push_buffer(stream_, held_);
    held_ = nullptr;
    return kKOk;
}

KStatus StreamEngine::CancelQueuedGrabs() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        cancelled_ = true;
    }
    changed_.notify_all();
    return kKOk;
}

KStatus StreamEngine::FreeQueue() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stream_ == nullptr) return kKOk;
    for (ArvBuffer* buffer : ready_) arv_stream_push_buffer(stream_, buffer);
    ready_.clear();
    // Completed buffers the queue thread never took go back to the stream as well.
    while (ArvBuffer* buffer = arv_stream_try_pop_buffer(stream_)) {
        arv_stream_push_buffer(stream_, buffer);
    }
    return kKOk;
}

bool StreamEngine::IsStreaming() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return streaming_;
}

bool StreamEngine::LastFrame(FrameFacts& facts) const {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!haveHeldFacts_) return false;
    facts = heldFacts_;
    return true;
}

FrameCounters StreamEngine::Counters() const {
    uint64_t completed = 0, failures = 0, underruns = 0;
    StreamStatistics(completed, failures, underruns);
    std::lock_guard<std::mutex> lock(mutex_);
    FrameCounters counters = counters_;
    if (underruns > underrunsAtStart_) {
        counters.lost = std::max(counters.lost, underruns - underrunsAtStart_);
    }
    return counters;
}

int32_t StreamEngine::UsageLocked() {
    gint input = 0;
    gint output = 0;
    if (stream_ != nullptr) arv_stream_get_n_buffers(stream_, &input, &output);
    return static_cast<int32_t>(ready_.size()) + output;
}

int32_t StreamEngine::Usage() {
    std::lock_guard<std::mutex> lock(mutex_);
    const int32_t usage = UsageLocked();
    maxUsage_ = std::max(maxUsage_, usage);
    return usage;
}

int32_t StreamEngine::MaxUsage() {
    std::lock_guard<std::mutex> lock(mutex_);
    maxUsage_ = std::max(maxUsage_, UsageLocked());
    return maxUsage_;
}

void StreamEngine::StreamStatistics(uint64_t& completed, uint64_t& failures,
                                    uint64_t& underruns) const {
    completed = failures = underruns = 0;
    if (stream_ == nullptr) return;
    guint64 c = 0, f = 0, u = 0;
    arv_stream_get_statistics(stream_, &c, &f, &u);
    completed = c;
    failures = f;
    underruns = u;
}

}  // namespace kestor::genicam
