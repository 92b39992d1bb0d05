// Reading frames and timestamps of a disk sequence.
#include <algorithm>
#include <cstring>

#include "core/CKestorImage.h"
#include "sequence/CKestorMetadataManager.h"
#include "sequence/CKestorSequencerDisk.h"
#include "sequence/MetadataLayout.h"

using namespace kestor;

namespace {

constexpr uint32_t kTimestampBytes = 8;
constexpr uint32_t kLargestExtraBytes = 0xFFFF;

void LoadTimestamp(const uint8_t* in, uint32_t& seconds, uint16_t& milliseconds,
                   uint16_t& microseconds) {
    std::memcpy(&seconds, in, 4);
    std::memcpy(&milliseconds, in + 4, 2);
    std::memcpy(&microseconds, in + 6, 2);
}

}  // namespace

bool CKestorSequencerDisk::Read(KImage* image, uint32_t frame) {
    std::lock_guard lock(mutex_);
    if (!file_.IsOpen() || frame == 0) return SetError(eKErrInvalidIndex);
    if (image == nullptr) return SetError(eKErrNoSequenceOrInvalidImage);
    const uint32_t count = header_.data.allocatedFrames;
    if (count == 0) return SetError(eKErrInvalidIndex);
    frame = std::min(frame, count);

    const KImageDescription wanted = header_.Image();
    const uint32_t imageSize = wanted.sizeBytes;
    const uint32_t slot = header_.data.trueImageSize;
    CKestorImage* target = image->GetImage();
    if (target == nullptr || !(target->Description() == wanted) || target->Buffer() == nullptr ||
        target->BufferSize() < uint64_t{imageSize} + kTimestampBytes) {
        // Room for the frame's metadata behind the pixels; with 512-byte sectors that makes the
        // buffer exactly one slot, so the frame is read in place in one transfer.
        const auto extra = static_cast<uint16_t>(std::min(frameMetadataSize_, kLargestExtraBytes));
        if (target == nullptr) {
            if (!image->ReallocateImage(wanted.width, wanted.height, wanted.bitDepth,
                                        wanted.bitDepthReal,
                                        static_cast<eKImageFormat>(wanted.format)))
                return SetError(eKErrOutOfMemory);
            target = image->GetImage();
        }
        if (target == nullptr || !target->Reallocate(wanted.width, wanted.height, wanted.bitDepth,
                                                     wanted.bitDepthReal, wanted.format, extra))
            return SetError(eKErrOutOfMemory);
        if (!(target->Description() == wanted)) return SetError(eKErrNoSequenceOrInvalidImage);
    }

    positionFrame_ = frame;
    // A frame that cannot be read whole comes back as zeros; the read itself is not an error.
    slots_.Read(file_, header_.SlotOffset(frame), slot, target->Buffer(),
                static_cast<size_t>(std::min<uint64_t>(target->BufferSize(), slot)));
    if (wanted.format == eKFormatBGRPlanar) target->SetPlanarPointers();

    uint8_t stamp[kTimestampBytes];
    slots_.SlotBytes(imageSize, kTimestampBytes, stamp);
    uint32_t seconds;
    uint16_t milliseconds, microseconds;
    LoadTimestamp(stamp, seconds, milliseconds, microseconds);
    target->SetTimestamp(seconds, milliseconds, microseconds);

    if (frameMetadataSize_ > 0) {
        std::vector<uint8_t> area(frameMetadataSize_);
        slots_.SlotBytes(uint64_t{imageSize} + kTimestampBytes, area.size(), area.data());
        DecodeFrameMetadata(area.data(), frameMetadataSize_, target->Metadata(), &Metadata());
    } else {
        target->Metadata().clear();  // the image carries this frame's metadata, not older ones
    }
    positionFrame_ = frame + 1;
    return true;
}

bool CKestorSequencerDisk::ReadTimestamp(uint32_t frame, uint32_t& seconds, uint16_t& milliseconds,
                                         uint16_t& microseconds) {
    seconds = 0;
    milliseconds = 0;
    microseconds = 0;
    std::lock_guard lock(mutex_);
    if (!file_.IsOpen() || frame < 1 || header_.data.allocatedFrames == 0)
        return SetError(eKErrInvalidIndex);
    frame = std::min(frame, header_.data.allocatedFrames);
    // Unbuffered, this reads the sector holding the timestamp (two when it straddles them).
    uint8_t stamp[kTimestampBytes];
    const bool ok =
        ReadBytes(header_.SlotOffset(frame) + header_.data.imageSizeBytes, kTimestampBytes, stamp);
    positionFrame_ = 0;
    if (!ok) return SetError(eKErrInvalidIndex);
    LoadTimestamp(stamp, seconds, milliseconds, microseconds);
    return true;
}
