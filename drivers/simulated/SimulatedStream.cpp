#include "simulated/SimulatedStream.h"

#include <algorithm>
#include <chrono>
#include <cstring>

namespace kestor::simulated {
namespace {

// A paced stream that fell this far behind (a debugger stop, a switch from free run) starts
// its schedule afresh instead of catching up in a burst.
constexpr uint64_t kMaxLagNs = 1'000'000'000;
// Waits are cut into slices so that a change of pacing is seen without a notification.
constexpr uint64_t kWaitSliceNs = 50'000'000;

uint64_t PeriodNs(double frameRate) {
    return static_cast<uint64_t>(1e9 / std::max(frameRate, 1e-3));
}

}  // namespace

size_t SimulatedStream::SlotBytes(size_t frameBytes) {
    const size_t block = kDirectIoAlignment;
    return std::max<size_t>(1, (frameBytes + block - 1) / block) * block;
}

KStatus SimulatedStream::SetBufferCount(uint32_t count, size_t frameBytes, uint64_t memoryLimit) {
    std::lock_guard lock(mutex_);
    if (streaming_ || AnyBusyLocked()) return kKFail;
    return AllocateLocked(count, frameBytes, memoryLimit);
}

KStatus SimulatedStream::AllocateLocked(uint32_t count, size_t frameBytes, uint64_t memoryLimit) {
    const size_t slot = SlotBytes(frameBytes);
    if (memoryLimit != 0 && static_cast<uint64_t>(count) * slot > memoryLimit) {
        return kKOutOfMemory;
    }
    completed_.clear();
    held_.clear();
    buffers_.clear();
    slotBytes_ = 0;
    statistics_.total = 0;
    std::vector<Buffer> buffers(count);
    for (Buffer& buffer : buffers) {
        if (!buffer.memory.Resize(slot)) return kKOutOfMemory;
        // Touch every page now, so that the first frames do not pay for page faults.
        std::memset(buffer.memory.Data(), 0, slot);
    }
    buffers_ = std::move(buffers);
    slotBytes_ = slot;
    statistics_.total = static_cast<int32_t>(count);
    return kKOk;
}

uint32_t SimulatedStream::BufferCount() const {
    std::lock_guard lock(mutex_);
    return static_cast<uint32_t>(buffers_.size());
}

KStatus SimulatedStream::Start(size_t frameBytes, uint64_t memoryLimit, FillFunction fill,
                               LossFunction onLoss) {
    std::lock_guard lock(mutex_);
    if (streaming_) return kKFalse;
    if (buffers_.empty()) return kKFail;
    // Frames left from an earlier run are forgotten; a buffer the reader still holds stays his.
    for (int index : completed_) buffers_[index].state = State::Free;
    completed_.clear();
    if (slotBytes_ < frameBytes) {
        if (AnyBusyLocked()) return kKFail;
        const KStatus status =
            AllocateLocked(static_cast<uint32_t>(buffers_.size()), frameBytes, memoryLimit);
        if (KFailed(status)) return status;
    }
    fill_ = std::move(fill);
    onLoss_ = std::move(onLoss);
    streaming_ = true;
    stopped_ = false;
    cancelled_ = false;
    ++generation_;
    nextFrameNumber_ = 0;
    pendingTriggers_ = 0;
    grabs_ = 0;
    readyWaits_ = 0;
    heldBackLast_ = false;
    inLossBurst_ = false;
    haveLastImage_ = false;
    const int32_t total = statistics_.total;
    statistics_ = StreamStatistics{};
    statistics_.total = total;
    UpdateUsageLocked();
    originMonotonicNs_ = MonotonicNanoseconds();
    const WallTime wall = CurrentWallTime();
    originWallUs_ = wall.seconds * 1000000 + wall.milliseconds * 1000 + wall.microseconds;
    nextDueNs_ = originMonotonicNs_;
    changed_.notify_all();
    return kKOk;
}

bool SimulatedStream::WaitForDueFrameLocked(std::unique_lock<std::mutex>& lock, uint64_t& due) {
    const uint64_t now = MonotonicNanoseconds();
    if (now > nextDueNs_ + kMaxLagNs) nextDueNs_ = now;
    if (now < nextDueNs_) {
        const uint64_t wait = std::min(nextDueNs_ - now, kWaitSliceNs);
        changed_.wait_for(lock, std::chrono::nanoseconds(wait));
        return false;
    }
    due = nextDueNs_;
    nextDueNs_ += PeriodNs(pacing_.frameRate);
    return true;
}

KStatus SimulatedStream::QueueGrab() {
    std::unique_lock lock(mutex_);
    if (stopped_) return kKFalse;
    if (faults_.failAfterFrames != 0 && grabs_ >= faults_.failAfterFrames) return kKFail;

    const uint64_t generation = generation_;
    int index = -1;
    uint64_t due = 0;
    while (index < 0) {
        if (stopped_ || generation_ != generation) return kKFalse;
        if (pacing_.trigger == StreamTrigger::Software) {
            if (pendingTriggers_ == 0) {
                changed_.wait_for(lock, std::chrono::nanoseconds(kWaitSliceNs));
                continue;
            }
            --pendingTriggers_;
            due = MonotonicNanoseconds();
        } else if (pacing_.freeRun) {
            // Back-pressure: nothing is lost, the camera waits for the reader.
            if (FindFreeLocked() < 0) {
                changed_.wait_for(lock, std::chrono::nanoseconds(kWaitSliceNs));
                continue;
            }
            due = MonotonicNanoseconds();
            nextDueNs_ = due;  // a later switch to pacing starts from here
        } else if (!WaitForDueFrameLocked(lock, due)) {
            continue;
        }

        index = FindFreeLocked();
        if (index < 0) {
            // The frame's time came and no buffer was free: it is gone, and its number with it.
            ++statistics_.lost;
            ++nextFrameNumber_;
            if (!inLossBurst_) {
                inLossBurst_ = true;
                if (onLoss_) {
                    LossFunction onLoss = onLoss_;
                    lock.unlock();
                    onLoss();
                    lock.lock();
                }
            }
        }
    }

    inLossBurst_ = false;
    Buffer& buffer = buffers_[index];
    buffer.state = State::Filling;
    buffer.stamp.number = nextFrameNumber_++;
    buffer.stamp.time = WallTimeOf(due);
    uint8_t* pixels = buffer.memory.Data();
    const uint64_t number = buffer.stamp.number;
    FillFunction fill = fill_;
    lock.unlock();
    if (fill) fill(pixels, number);
    lock.lock();

    if (generation_ != generation) {  // the queue was freed meanwhile
        buffers_[index].state = State::Free;
        changed_.notify_all();
        return kKFalse;
    }
    buffers_[index].state = State::Completed;
    completed_.push_back(index);
    ++grabs_;
    UpdateUsageLocked();
    changed_.notify_all();
    return kKOk;
}

KStatus SimulatedStream::WaitImage(void** pixels) {
    if (pixels == nullptr) return kKPointer;
    *pixels = nullptr;
    std::unique_lock lock(mutex_);
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::nanoseconds(kWaitImageTimeoutNs);
    while (!cancelled_ && completed_.empty()) {
        if (changed_.wait_until(lock, deadline) == std::cv_status::timeout) break;
    }
    if (cancelled_ || completed_.empty()) return kKFalse;

    if (faults_.nullWaitEvery != 0 && !heldBackLast_ &&
        ++readyWaits_ % faults_.nullWaitEvery == 0) {
        heldBackLast_ = true;  // the image stays queued and comes with the next call
        return kKFalse;
    }
    heldBackLast_ = false;
    const int index = completed_.front();
    completed_.pop_front();
    held_.push_back(index);
    buffers_[index].state = State::Held;
    ++statistics_.delivered;
    lastImage_ = buffers_[index].stamp;
    haveLastImage_ = true;
    *pixels = buffers_[index].memory.Data();
    return kKOk;
}

KStatus SimulatedStream::ReleaseImage() {
    std::lock_guard lock(mutex_);
    if (held_.empty()) return kKFalse;
    buffers_[held_.front()].state = State::Free;
    held_.pop_front();
    UpdateUsageLocked();
    changed_.notify_all();
    return kKOk;
}

KStatus SimulatedStream::CancelQueuedGrabs() {
    std::lock_guard lock(mutex_);
    cancelled_ = true;
    changed_.notify_all();
    return kKOk;
}

KStatus SimulatedStream::Stop() {
    std::lock_guard lock(mutex_);
    streaming_ = false;
    stopped_ = true;
    changed_.notify_all();
    return kKOk;
}

KStatus SimulatedStream::FreeQueue() {
    std::lock_guard lock(mutex_);
    for (int index : completed_) buffers_[index].state = State::Free;
    completed_.clear();
    pendingTriggers_ = 0;
    ++generation_;
    UpdateUsageLocked();
    changed_.notify_all();
    return kKOk;
}

void SimulatedStream::SetPacing(const StreamPacing& pacing) {
    std::lock_guard lock(mutex_);
    pacing_ = pacing;
    changed_.notify_all();
}

void SimulatedStream::SetFaults(const StreamFaults& faults) {
    std::lock_guard lock(mutex_);
    faults_ = faults;
}

void SimulatedStream::SoftwareTrigger() {
    std::lock_guard lock(mutex_);
    if (!streaming_) return;
    ++pendingTriggers_;
    changed_.notify_all();
}

bool SimulatedStream::IsStreaming() const {
    std::lock_guard lock(mutex_);
    return streaming_;
}

StreamStatistics SimulatedStream::Statistics() const {
    std::lock_guard lock(mutex_);
    return statistics_;
}

bool SimulatedStream::LastImage(FrameStamp& stamp) const {
    std::lock_guard lock(mutex_);
    if (!haveLastImage_) return false;
    stamp = lastImage_;
    return true;
}

int SimulatedStream::FindFreeLocked() const {
    for (size_t i = 0; i < buffers_.size(); ++i) {
        if (buffers_[i].state == State::Free) return static_cast<int>(i);
    }
    return -1;
}

bool SimulatedStream::AnyBusyLocked() const {
    return std::any_of(buffers_.begin(), buffers_.end(), [](const Buffer& buffer) {
        return buffer.state == State::Filling || buffer.state == State::Held;
    });
}

WallTime SimulatedStream::WallTimeOf(uint64_t monotonicNs) const {
    const int64_t sinceOrigin =
        static_cast<int64_t>(monotonicNs - originMonotonicNs_) / 1000;  // microseconds
    const int64_t us = originWallUs_ + sinceOrigin;
    return WallTime{us / 1000000, static_cast<uint16_t>(us / 1000 % 1000),
                    static_cast<uint16_t>(us % 1000)};
}

void SimulatedStream::UpdateUsageLocked() {
    statistics_.usage = static_cast<int32_t>(completed_.size() + held_.size());
    statistics_.maxUsage = std::max(statistics_.maxUsage, statistics_.usage);
}

}  // namespace kestor::simulated
