// Changing the frames of a disk sequence after recording: truncation and sorting by time.
#include <algorithm>
#include <numeric>
#include <tuple>
#include <vector>

#include "sequence/CKestorSequencerDisk.h"

using namespace kestor;

namespace {

struct FrameTime {
    int32_t seconds;
    uint16_t milliseconds;
    uint16_t microseconds;

    bool operator<(const FrameTime& other) const {
        return std::tie(seconds, milliseconds, microseconds) <
               std::tie(other.seconds, other.milliseconds, other.microseconds);
    }
};

}  // namespace

bool CKestorSequencerDisk::Truncate(uint32_t count) {
    std::lock_guard lock(mutex_);
    if (!file_.IsOpen()) return SetError(eKErrNoSequenceOrInvalidImage);
    if (count == 0) return true;
    if (!file_.IsWritable()) return SetError(eKErrNoSequenceOrInvalidImage);
    if (count > header_.data.allocatedFrames) return true;  // frames 1 .. count - 1 all stay

    // The file ends where slot `count` began.
    if (!file_.Truncate(header_.SlotOffset(count))) return SetError(eKErrWriteFailed);
    positionFrame_ = count;
    if (readFrame_ >= count && readFrame_ != 1) readFrame_ = count - 1;
    if (writeFrame_ >= count && writeFrame_ != 1) writeFrame_ = count;
    // Frames that were in time order still are.
    const bool rising = header_.data.risingMarker == kRisingTimestampsMarker &&
                        header_.data.risingFrames >= count - 1;
    header_.data.allocatedFrames = count - 1;
    if (rising)
        header_.SetRisingFrames(count - 1);
    else
        header_.ForgetRisingFrames();
    modified_ = true;
    FramesChanged();
    if (!WriteHeadBlock()) return SetError(eKErrWriteFailed);
    return true;
}

// Frames are put in time order by following the cycles of the permutation: each slot is read
// once and written once, with one slot held aside per cycle, so the file needs no extra room.
bool CKestorSequencerDisk::Sort() {
    std::lock_guard lock(mutex_);
    if (!file_.IsOpen() || !file_.IsWritable()) return SetError(eKErrNoSequenceOrInvalidImage);
    const uint32_t count = header_.data.allocatedFrames;

    std::vector<FrameTime> times(count);
    for (uint32_t frame = 1; frame <= count; ++frame) {
        uint32_t seconds;
        FrameTime& time = times[frame - 1];
        if (!ReadTimestamp(frame, seconds, time.milliseconds, time.microseconds)) return false;
        time.seconds = static_cast<int32_t>(seconds);
    }
    // order[i] is the frame (0-based) that belongs at position i.
    std::vector<uint32_t> order(count);
    std::iota(order.begin(), order.end(), 0u);
    std::stable_sort(order.begin(), order.end(),
                     [&](uint32_t a, uint32_t b) { return times[a] < times[b]; });

    const uint32_t slot = header_.data.trueImageSize;
    const bool moves = !std::is_sorted(order.begin(), order.end());
    AlignedBuffer held, moving;
    if (moves && (!held.Resize(slot) || !moving.Resize(slot))) return SetError(eKErrOutOfMemory);
    auto read = [&](AlignedBuffer& buffer, uint32_t index) {
        return slots_.Read(file_, header_.SlotOffset(index + 1), slot, buffer.Data(), slot);
    };
    auto write = [&](AlignedBuffer& buffer, uint32_t index) {
        return slots_.Write(file_, header_.SlotOffset(index + 1), slot, buffer.Data(), slot);
    };
    std::vector<bool> placed(count, false);
    for (uint32_t start = 0; moves && start < count; ++start) {
        if (placed[start] || order[start] == start) continue;
        if (!read(held, start)) return SetError(eKErrWriteFailed);
        for (uint32_t at = start;;) {
            placed[at] = true;
            const uint32_t from = order[at];
            if (from == start) {
                if (!write(held, at)) return SetError(eKErrWriteFailed);
                break;
            }
            if (!read(moving, from) || !write(moving, at)) return SetError(eKErrWriteFailed);
            at = from;
        }
    }
    positionFrame_ = 0;
    header_.SetRisingFrames(count);
    modified_ = true;
    FramesChanged();
    if (!WriteHeadBlock()) return SetError(eKErrWriteFailed);
    return true;
}
