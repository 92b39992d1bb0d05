#include "sequence/CKestorSequencerRAM.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "KUtils.h"
#include "core/CKestorImage.h"
#include "sequence/CKestorMetadataManager.h"
#include "sequence/PlaybackEngine.h"

namespace {

constexpr uint64_t kSlotGranule = 512;
constexpr uint32_t kTimestampBytes = 8;

// Pixels + timestamp + metadata room, rounded up to 512 bytes; 0 when that does not fit the
// 32-bit slot size (such a frame cannot be held).
uint32_t SlotSizeFor(uint32_t imageSizeBytes, uint64_t metadataRoom) {
    const uint64_t bytes = uint64_t{imageSizeBytes} + metadataRoom + kTimestampBytes;
    const uint64_t rounded = (bytes + kSlotGranule - 1) / kSlotGranule * kSlotGranule;
    return rounded > UINT32_MAX ? 0 : static_cast<uint32_t>(rounded);
}

bool IsPlanar(const KImageDescription& image) {
    return image.format == eKFormatBGRPlanar;
}

struct SlotTime {
    uint32_t seconds = 0;
    uint16_t milliseconds = 0;
    uint16_t microseconds = 0;
};

SlotTime TimeInSlot(const uint8_t* slot, uint32_t imageSizeBytes) {
    SlotTime time;
    const uint8_t* at = slot + imageSizeBytes;
    std::memcpy(&time.seconds, at, 4);
    std::memcpy(&time.milliseconds, at + 4, 2);
    std::memcpy(&time.microseconds, at + 6, 2);
    return time;
}

}  // namespace

CKestorSequencerRAM::CKestorSequencerRAM() {
    ResetHeader();
}

// The playback thread reads through the virtual operations of this object: stop it while they
// still exist.
CKestorSequencerRAM::~CKestorSequencerRAM() {
    Playback().Stop();
    Close();
}

bool CKestorSequencerRAM::Open() {
    std::lock_guard lock(mutex_);
    ReleaseEverything();
    ResetHeader();
    playbackPosition_ = 1;
    recordingPosition_ = 1;
    open_ = true;
    FramesChanged();
    return true;
}

bool CKestorSequencerRAM::IsOpen() const {
    return open_;
}

bool CKestorSequencerRAM::Close() {
    std::lock_guard lock(mutex_);
    ReleaseEverything();
    open_ = false;
    playbackPosition_ = 0;
    recordingPosition_ = 0;
    ResetHeader();
    FramesChanged();
    return true;
}

void CKestorSequencerRAM::ReleaseEverything() {
    // The records only point into the pools; the pools go by whole reservations.
    std::vector<FrameRecord>().swap(frames_);
    std::vector<uint8_t*>().swap(spares_);
    spareSlotSize_ = 0;
    pools_.ReleaseAll();
    image_ = KImageDescription{};
    slotSize_ = 0;
}

void CKestorSequencerRAM::ResetHeader() {
    header_.Reset();
    header_.data.frameRate = 0.0;  // a memory recording has no rate until one is set
}

void CKestorSequencerRAM::SyncFrameCount() {
    header_.data.allocatedFrames = static_cast<uint32_t>(frames_.size());
}

// --- writing -------------------------------------------------------------------------------

bool CKestorSequencerRAM::AppendSlot(bool useSpares) {
    const bool fromSpares = useSpares && !spares_.empty();
    uint8_t* slot = fromSpares ? spares_.back() : static_cast<uint8_t*>(pools_.Allocate(slotSize_));
    if (slot == nullptr) return false;
    try {
        frames_.push_back(FrameRecord{slot, {}, 0});
    } catch (const std::bad_alloc&) {
        if (!fromSpares) pools_.Free(slotSize_, slot);
        return false;
    }
    if (fromSpares) spares_.pop_back();
    return true;
}

void CKestorSequencerRAM::StoreFrame(FrameRecord& record, const KImage& image) const {
    const CKestorImage& source = *image.GetImage();
    const uint32_t size = image_.sizeBytes;
    uint8_t* slot = record.slot;
    if (IsPlanar(image_)) {
        // The planes follow one another in the slot, whatever their place in the image.
        const uint32_t third = size / 3;
        const uint8_t* planes[3] = {
            source.Buffer(), source.Plane1() != nullptr ? source.Plane1() : source.Buffer() + third,
            source.Plane2() != nullptr ? source.Plane2() : source.Buffer() + 2 * uint64_t{third}};
        for (int plane = 0; plane < 3; ++plane)
            std::memcpy(slot + uint64_t{third} * plane, planes[plane], third);
        // A size that is not a multiple of 3 leaves one or two bytes that no plane carries.
        std::memset(slot + 3 * uint64_t{third}, 0, size - 3 * third);
    } else {
        std::memcpy(slot, source.Buffer(), size);
    }
    const uint32_t seconds = source.TimestampSeconds();
    const uint16_t milliseconds = source.TimestampMilliseconds();
    const uint16_t microseconds = source.TimestampMicroseconds();
    std::memcpy(slot + size, &seconds, 4);
    std::memcpy(slot + size + 4, &milliseconds, 2);
    std::memcpy(slot + size + 6, &microseconds, 2);
    record.metadata = source.Metadata();
    record.metadataCapacity = source.ExtraBytes();
}

bool CKestorSequencerRAM::Write(KImage* image) {
    {
        std::lock_guard lock(mutex_);
        if (!open_) return SetError(eKErrNoSequenceOrInvalidImage);
        const CKestorImage* source = image != nullptr ? image->GetImage() : nullptr;
        const uint32_t position = recordingPosition_;
        if (source == nullptr || source->Buffer() == nullptr || position == 0)
            return SetError(eKErrNoSequenceOrInvalidImage);

        if (frames_.empty()) {
            // The first frame fixes what every later frame must look like.
            const uint32_t slotSize =
                SlotSizeFor(source->Description().sizeBytes, source->ExtraBytes());
            if (slotSize == 0) return SetError(eKErrOutOfMemory);
            image_ = source->Description();
            slotSize_ = slotSize;
            header_.SetImage(image_);
            header_.data.trueImageSize = slotSize_;
        }
        if (!(source->Description() == image_)) return SetError(eKErrIncompatibleImageFormat);

        // Spares fit only when made for exactly this slot size.
        const bool useSpares = spareSlotSize_ == slotSize_;
        const size_t countBefore = frames_.size();
        while (position > frames_.size()) {
            if (!AppendSlot(useSpares)) {
                // Zero-filled frames appended before the failure stay, as frames.
                if (frames_.size() != countBefore) {
                    header_.ForgetRisingFrames();
                    SyncFrameCount();
                    FramesChanged();
                }
                return SetError(eKErrOutOfMemory);
            }
        }

        StoreFrame(frames_[position - 1], *image);
        TrackRisingTimestamps(position, source->TimestampSeconds(), source->TimestampMilliseconds(),
                              source->TimestampMicroseconds());
        SyncFrameCount();
        recordingPosition_ = position + 1;
    }
    NotifyImageWritten();
    return true;
}

// --- reading -------------------------------------------------------------------------------

const CKestorSequencerRAM::FrameRecord* CKestorSequencerRAM::ClampedRecord(uint32_t frame) const {
    if (frames_.empty() || frame == 0) return nullptr;
    return &frames_[std::min<size_t>(frame, frames_.size()) - 1];
}

void CKestorSequencerRAM::LoadFrame(const FrameRecord& record, CKestorImage& image) const {
    const uint32_t size = image_.sizeBytes;
    if (IsPlanar(image_)) {
        const uint32_t third = size / 3;
        std::memcpy(image.Buffer(), record.slot, 3 * uint64_t{third});
        std::memset(image.Buffer() + 3 * uint64_t{third}, 0, size - 3 * third);
        image.SetPlanarPointers();
    } else {
        std::memcpy(image.Buffer(), record.slot, size);
    }
    const SlotTime time = TimeInSlot(record.slot, size);
    image.SetTimestamp(time.seconds, time.milliseconds, time.microseconds);
    image.Metadata() = record.metadata;
}

bool CKestorSequencerRAM::Read(KImage* image, uint32_t frame) {
    std::lock_guard lock(mutex_);
    if (!open_) return SetError(eKErrNoSequenceOrInvalidImage);
    const FrameRecord* record = ClampedRecord(frame);
    if (record == nullptr || image == nullptr) {
        if (image != nullptr && image->GetImage() != nullptr) image->GetImage()->Reset();
        return SetError(eKErrInvalidIndex);
    }

    if (image->GetImage() == nullptr &&
        !image->ReallocateImage(image_.width, image_.height, image_.bitDepth, image_.bitDepthReal,
                                static_cast<eKImageFormat>(image_.format)))
        return SetError(eKErrOutOfMemory);
    CKestorImage& target = *image->GetImage();
    // The image takes the sequence's description and the frame's metadata room; stale plane
    // pointers of a packed image can only be cleared by a fresh allocation.
    const bool fits = target.Description() == image_ && target.Buffer() != nullptr &&
                      target.ExtraBytes() == record->metadataCapacity &&
                      (IsPlanar(image_) || target.Plane1() == nullptr);
    if (!fits) {
        if (!target.Reallocate(image_.width, image_.height, image_.bitDepth, image_.bitDepthReal,
                               image_.format, record->metadataCapacity))
            return SetError(eKErrOutOfMemory);
        if (!(target.Description() == image_)) {
            target.Reset();
            return SetError(eKErrIncompatibleImageFormat);
        }
    }
    LoadFrame(*record, target);
    return true;
}

bool CKestorSequencerRAM::ReadTimestamp(uint32_t frame, uint32_t& seconds, uint16_t& milliseconds,
                                        uint16_t& microseconds) {
    seconds = 0;
    milliseconds = 0;
    microseconds = 0;
    std::lock_guard lock(mutex_);
    const FrameRecord* record = ClampedRecord(frame);
    if (record == nullptr) return SetError(eKErrInvalidIndex);
    const SlotTime time = TimeInSlot(record->slot, image_.sizeBytes);
    seconds = time.seconds;
    milliseconds = time.milliseconds;
    microseconds = time.microseconds;
    return true;
}

// --- editing -------------------------------------------------------------------------------

bool CKestorSequencerRAM::Truncate(uint32_t count) {
    std::lock_guard lock(mutex_);
    if (!open_ || count == 0) return true;
    while (frames_.size() >= count) {
        pools_.Free(slotSize_, frames_.back().slot);
        frames_.pop_back();
    }
    if (playbackPosition_ >= count && playbackPosition_ != 1) SetReadFrame(count - 1);
    if (recordingPosition_ >= count && recordingPosition_ != 1) SetWriteFrame(count);
    // Frames that rose before still rise after losing their tail.
    const bool wasRising = header_.data.risingMarker == kestor::kRisingTimestampsMarker &&
                           header_.data.risingFrames >= frames_.size();
    FramesChanged();
    SyncFrameCount();
    if (wasRising) header_.SetRisingFrames(static_cast<uint32_t>(frames_.size()));
    return true;
}

bool CKestorSequencerRAM::Sort() {
    std::lock_guard lock(mutex_);
    if (!open_) return SetError(eKErrNoSequenceOrInvalidImage);
    if (header_.TimestampsKnownToRise()) return true;
    try {
        // Each timestamp is read once; the records move, the pixels stay where they are.
        std::vector<std::pair<SlotTime, uint32_t>> order;
        order.reserve(frames_.size());
        for (uint32_t index = 0; index < frames_.size(); ++index)
            order.emplace_back(TimeInSlot(frames_[index].slot, image_.sizeBytes), index);
        std::stable_sort(order.begin(), order.end(), [](const auto& a, const auto& b) {
            return CompareTimestamps(static_cast<int32_t>(a.first.seconds), a.first.milliseconds,
                                     a.first.microseconds, static_cast<int32_t>(b.first.seconds),
                                     b.first.milliseconds, b.first.microseconds) < 0;
        });
        std::vector<FrameRecord> sorted;
        sorted.reserve(frames_.size());
        for (const auto& entry : order) sorted.push_back(std::move(frames_[entry.second]));
        frames_.swap(sorted);
    } catch (const std::bad_alloc&) {
        return SetError(eKErrOutOfMemory);
    }
    FramesChanged();
    header_.SetRisingFrames(static_cast<uint32_t>(frames_.size()));
    return true;
}

// --- spares --------------------------------------------------------------------------------

void CKestorSequencerRAM::DiscardSpares() {
    for (uint8_t* slot : spares_) pools_.Free(spareSlotSize_, slot);
    spares_.clear();
}

bool CKestorSequencerRAM::PreAllocateImages(uint32_t imageSizeBytes, uint32_t count) {
    if (!open_) return SetError(eKErrNoSequenceOrInvalidImage);
    // Read before taking the lock: the setting lives in the user's registry store.
    const int metadataRoom = CKestorMetadataManager().GetMetadataMaxSize();
    std::lock_guard lock(mutex_);
    if (!open_) return SetError(eKErrNoSequenceOrInvalidImage);
    const uint32_t slotSize =
        SlotSizeFor(imageSizeBytes, static_cast<uint32_t>(std::max(metadataRoom, 0)));
    if (slotSize == 0) return SetError(eKErrOutOfMemory);
    if (!spares_.empty() && spareSlotSize_ != slotSize) DiscardSpares();
    spareSlotSize_ = slotSize;
    try {
        spares_.reserve(spares_.size() + count);
        // Frames taken from the spares must not pay for a growing record list either.
        if (slotSize == slotSize_ || frames_.empty()) frames_.reserve(frames_.size() + count);
    } catch (const std::bad_alloc&) {
        return SetError(eKErrOutOfMemory);
    }
    for (uint32_t made = 0; made < count; ++made) {
        void* slot = pools_.Allocate(slotSize);
        if (slot == nullptr) return SetError(eKErrOutOfMemory);  // the ones made stay
        spares_.push_back(static_cast<uint8_t*>(slot));
    }
    return true;
}

uint32_t CKestorSequencerRAM::GetPreAllocatedImages() const {
    std::lock_guard lock(mutex_);
    return static_cast<uint32_t>(spares_.size());
}

// --- positions and limits ------------------------------------------------------------------

void CKestorSequencerRAM::SetReadFrame(uint32_t frame) {
    std::lock_guard lock(mutex_);
    if (!open_) return;
    frame = std::min<uint64_t>(frame, frames_.size());
    playbackPosition_ = frame == 0 ? 1 : frame;  // 1 even when the sequence is empty
}

void CKestorSequencerRAM::SetWriteFrame(uint32_t frame) {
    std::lock_guard lock(mutex_);
    if (!open_) return;
    recordingPosition_ = frame == 0 ? 1 : frame;
}

void CKestorSequencerRAM::SetMemoryLimit(uint64_t bytes) {
    std::lock_guard lock(mutex_);
    pools_.SetLimit(bytes);
}

uint64_t CKestorSequencerRAM::GetMemoryHeld() const {
    std::lock_guard lock(mutex_);
    return pools_.HeldBytes();
}
