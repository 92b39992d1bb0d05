// Appending (or overwriting) frames of a disk sequence.
#include <algorithm>
#include <cstring>

#include "core/CKestorImage.h"
#include "platform/DebugOutput.h"
#include "platform/WideString.h"
#include "sequence/CKestorMetadataManager.h"
#include "sequence/CKestorSequencerDisk.h"
#include "sequence/MetadataLayout.h"

using namespace kestor;

namespace {

constexpr uint32_t kTimestampBytes = 8;

uint64_t RoundUp(uint64_t value, uint64_t unit) {
    return (value + unit - 1) / unit * unit;
}

// The image block of a frame that the file format can describe: nothing zero, and the image
// size exactly what its geometry gives (no 32-bit wrap-around).
bool IsRecordable(const KImageDescription& image) {
    const uint64_t expected = uint64_t{image.width} * image.height * image.bitDepth / 8;
    return image.width != 0 && image.height != 0 && image.bitDepth != 0 &&
           image.bitDepthReal != 0 && expected != 0 && expected == image.sizeBytes;
}

void StoreTimestamp(uint8_t* out, const CKestorImage& frame) {
    const uint32_t seconds = frame.TimestampSeconds();
    const uint16_t milliseconds = frame.TimestampMilliseconds();
    const uint16_t microseconds = frame.TimestampMicroseconds();
    std::memcpy(out, &seconds, 4);
    std::memcpy(out + 4, &milliseconds, 2);
    std::memcpy(out + 6, &microseconds, 2);
}

}  // namespace

bool CKestorSequencerDisk::LayOutFor(KImage& image, CKestorImage& frame) {
    const KImageDescription& description = frame.Description();
    if (!IsRecordable(description)) return SetError(eKErrNoSequenceOrInvalidImage);
    CKestorMetadataManager& metadata = Metadata();
    metadata.LoadTypes();  // types registered since the last recording count too

    const uint32_t sector = bytesPerSector_;
    const uint32_t frameMetadata = PerFrameMetadataSize(image, frame.ExtraBytes(), metadata);
    uint64_t section = TypeSectionSize(image, metadata, sector);
    // The first slot must start on a sector boundary; with sectors above the header's size
    // the section grows to reach one.
    if (section > 0 || sector > kSequenceHeaderSize)
        section = RoundUp(kSequenceHeaderSize + section, sector) - kSequenceHeaderSize;
    // Readers skip larger sections as damaged: stay below the limit, even if types are lost.
    if (section > kMaxReadableTypeSectionSize) {
        const uint64_t head = (kSequenceHeaderSize + kMaxReadableTypeSectionSize) / sector * sector;
        if (head < kSequenceHeaderSize) return SetError(eKErrNoSequenceOrInvalidImage);
        section = head - kSequenceHeaderSize;
    }
    const uint32_t slot = SequenceHeader::SlotSize(description.sizeBytes, frameMetadata, sector);
    if (slot == 0) return SetError(eKErrNoSequenceOrInvalidImage);

    header_.SetImage(description);
    header_.data.frameMetadataSize = frameMetadata;
    header_.data.typeSectionSize = static_cast<uint32_t>(section);
    header_.data.trueImageSize = slot;
    typeSection_ = section > 0 ? BuildTypeSection(ApplicationTypesOf(image, metadata),
                                                  static_cast<uint32_t>(section))
                               : std::vector<uint8_t>();
    frameMetadataSize_ = frameMetadata;
    return true;
}

void CKestorSequencerDisk::BuildTrailer(const CKestorImage& frame) {
    trailer_.assign(kTimestampBytes + frameMetadataSize_, 0);
    StoreTimestamp(trailer_.data(), frame);
    if (frameMetadataSize_ == 0) return;
    if (!EncodeFrameMetadata(frame.Metadata(), trailer_.data() + kTimestampBytes,
                             frameMetadataSize_) &&
        DebugOutputEnabled()) {
        KChar line[1024];
        WideFormat(line, 1024, u"%s: %s\n", u"Kestor", u"Failed to write to metadata section");
        DebugOutput(line);
    }
}

// The slot goes to the disk from the frame's own buffer: the timestamp and metadata are placed
// behind the pixels, and whatever of them lies beyond the buffer travels in the tail.
bool CKestorSequencerDisk::WriteSlot(const CKestorImage& frame, uint64_t offset) {
    const uint32_t imageSize = header_.data.imageSizeBytes;
    const uint32_t slot = header_.data.trueImageSize;
    if (frame.Description().format == eKFormatBGRPlanar) {
        // Planes may live apart; they are gathered into one slot in plane order.
        const size_t alignment = std::max<size_t>(kDirectIoAlignment, file_.MemoryAlignment());
        if (window_.Alignment() < alignment) window_ = AlignedBuffer(0, alignment);
        if (!window_.Resize(slot)) return false;
        std::memset(window_.Data(), 0, slot);
        const uint32_t third = imageSize / 3;
        const uint8_t* planes[3] = {frame.Buffer(), frame.Plane1(), frame.Plane2()};
        for (uint32_t i = 0; i < 3; ++i) {
            const uint8_t* plane = planes[i] != nullptr ? planes[i] : frame.Buffer() + i * third;
            std::memcpy(window_.Data() + i * third, plane, third);
        }
        std::memcpy(window_.Data() + imageSize, trailer_.data(), trailer_.size());
        return slots_.Write(file_, offset, slot, window_.Data(), slot);
    }
    // A buffer the frame only borrows (a grabber's) is never written to: the trailer then
    // travels entirely in the tail.
    const uint64_t bufferSize = frame.OwnsBuffer() ? frame.BufferSize() : imageSize;
    const size_t inBuffer =
        static_cast<size_t>(std::min<uint64_t>(trailer_.size(), bufferSize - imageSize));
    std::memcpy(frame.Buffer() + imageSize, trailer_.data(), inBuffer);
    return slots_.Write(file_, offset, slot, frame.Buffer(),
                        static_cast<size_t>(std::min<uint64_t>(bufferSize, slot)),
                        trailer_.data() + inBuffer, trailer_.size() - inBuffer);
}

bool CKestorSequencerDisk::Write(KImage* image) {
    {
        std::lock_guard lock(mutex_);
        CKestorImage* frame = image != nullptr ? image->GetImage() : nullptr;
        if (frame != nullptr && frame->Description().format == eKFormatJpegEuresys)
            return SetError(eKErrFormatNotSupportedBySequence);
        if (!file_.IsOpen() || !file_.IsWritable() || frame == nullptr ||
            frame->Buffer() == nullptr || writeFrame_ < 1)
            return SetError(eKErrNoSequenceOrInvalidImage);

        const bool layingOut = header_.data.allocatedFrames == 0;
        if (layingOut && !LayOutFor(*image, *frame)) return false;
        if (!(frame->Description() == header_.Image()))
            return SetError(eKErrIncompatibleImageFormat);
        // Room for the timestamp behind the pixels is welcome but not required (a borrowed
        // buffer may hold exactly the pixels).
        if (frame->BufferSize() < header_.data.imageSizeBytes)
            return SetError(eKErrNoSequenceOrInvalidImage);

        BuildTrailer(*frame);
        const uint32_t count = header_.data.allocatedFrames;
        const bool appending = writeFrame_ > count;
        positionFrame_ = writeFrame_;
        if (!WriteSlot(*frame, header_.SlotOffset(writeFrame_))) {
            // A partly written slot beyond the last frame would only confuse a later recovery:
            // the file is cut back to the end of its frames (known, so no size query per frame).
            if (appending) file_.Truncate(header_.SlotOffset(count + 1));
            positionFrame_ = 0;
            return SetError(eKErrWriteFailed);
        }
        TrackRisingTimestamps(writeFrame_, frame->TimestampSeconds(),
                              frame->TimestampMilliseconds(), frame->TimestampMicroseconds());
        ++writeFrame_;
        positionFrame_ = writeFrame_;
        modified_ = true;
        if (writeFrame_ - 1 > count) header_.data.allocatedFrames = writeFrame_ - 1;
        // The header on disk describes the frames from the first one on, so that a recording
        // that never gets closed can still be recovered.
        if ((header_.data.allocatedFrames == 1 || layingOut) && !WriteHeadBlock())
            return SetError(eKErrWriteFailed);
    }
    NotifyImageWritten();
    return true;
}
