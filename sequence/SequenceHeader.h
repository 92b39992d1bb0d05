// The 1024-byte header at the start of every sequence file, and the frame-slot arithmetic.
#pragma once

#include <cstddef>
#include <cstdint>

#include "KError.h"
#include "KImage.h"

namespace kestor {

inline constexpr uint32_t kSequenceMagic = 0xFEED;
inline constexpr uint32_t kSequenceHeaderSize = 1024;
inline constexpr int32_t kSequenceVersion = 4;
inline constexpr uint32_t kReferenceTimeFlag = 2;
inline constexpr uint32_t kMarkersFlag = 1;
inline constexpr uint32_t kMaxTypeSectionSize = 100000;
// Timestamps of frames 1..N are known to be non-decreasing (N stored beside the marker), so a
// timestamp search may bisect. Kept in the reserved area; other writers leave it zero.
inline constexpr uint32_t kRisingTimestampsMarker = 0x5253544B;  // "KTSR"

#pragma pack(push, 1)
struct SequenceHeaderData {
    uint32_t magic;
    uint16_t name[12];
    int32_t version;
    uint32_t headerSize;
    uint16_t description[256];
    uint32_t width;
    uint32_t height;
    uint32_t bitDepth;
    uint32_t bitDepthReal;
    uint32_t imageSizeBytes;
    uint32_t imageFormat;
    uint32_t allocatedFrames;
    uint32_t userData;
    uint32_t trueImageSize;
    double frameRate;
    uint32_t descriptionFormat;
    uint32_t referenceFrame;
    uint32_t fixedRecordSize;
    uint32_t flags;
    uint32_t bayerOrigin;
    int32_t timeOffset;
    uint32_t reserved616;
    uint32_t compression;
    uint32_t referenceSeconds;
    uint16_t referenceMilliseconds;
    uint16_t referenceMicroseconds;
    uint32_t compressionParameter1;
    uint32_t compressionParameter2;
    uint32_t frameMetadataSize;
    uint32_t typeSectionSize;
    uint32_t risingMarker;  // kRisingTimestampsMarker when risingFrames is meaningful
    uint32_t risingFrames;  // frames 1..risingFrames have non-decreasing timestamps
    uint8_t reserved[368];
};
#pragma pack(pop)

static_assert(sizeof(SequenceHeaderData) == kSequenceHeaderSize);
static_assert(offsetof(SequenceHeaderData, name) == 4);
static_assert(offsetof(SequenceHeaderData, version) == 28);
static_assert(offsetof(SequenceHeaderData, headerSize) == 32);
static_assert(offsetof(SequenceHeaderData, description) == 36);
static_assert(offsetof(SequenceHeaderData, width) == 548);
static_assert(offsetof(SequenceHeaderData, imageFormat) == 568);
static_assert(offsetof(SequenceHeaderData, allocatedFrames) == 572);
static_assert(offsetof(SequenceHeaderData, userData) == 576);
static_assert(offsetof(SequenceHeaderData, trueImageSize) == 580);
static_assert(offsetof(SequenceHeaderData, frameRate) == 584);
static_assert(offsetof(SequenceHeaderData, descriptionFormat) == 592);
static_assert(offsetof(SequenceHeaderData, referenceFrame) == 596);
static_assert(offsetof(SequenceHeaderData, fixedRecordSize) == 600);
static_assert(offsetof(SequenceHeaderData, flags) == 604);
static_assert(offsetof(SequenceHeaderData, bayerOrigin) == 608);
static_assert(offsetof(SequenceHeaderData, timeOffset) == 612);
static_assert(offsetof(SequenceHeaderData, reserved616) == 616);
static_assert(offsetof(SequenceHeaderData, compression) == 620);
static_assert(offsetof(SequenceHeaderData, referenceSeconds) == 624);
static_assert(offsetof(SequenceHeaderData, referenceMilliseconds) == 628);
static_assert(offsetof(SequenceHeaderData, referenceMicroseconds) == 630);
static_assert(offsetof(SequenceHeaderData, compressionParameter1) == 632);
static_assert(offsetof(SequenceHeaderData, compressionParameter2) == 636);
static_assert(offsetof(SequenceHeaderData, frameMetadataSize) == 640);
static_assert(offsetof(SequenceHeaderData, typeSectionSize) == 644);
static_assert(offsetof(SequenceHeaderData, risingMarker) == 648);
// The file format is little-endian; the header is used in place on little-endian hosts.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);

class SequenceHeader {
public:
    SequenceHeader() { Reset(); }

    SequenceHeaderData data;

    // Defaults of a new file: magic, "Tavlin seq", version 4, 1024 bytes, "No Description",
    // 30 frames per second, compression parameters 30 and 5000000, everything else zero.
    void Reset();

    // Checks a header read from a file, in the fixed order magic, header size, frame rate,
    // width, height, bit depths, image size; the first failing reason goes to the debug
    // channel and is returned. Headers older than version 4 are upgraded in memory
    // (`upgraded` tells); a legacy format that cannot be mapped gives 58.
    eKErrorCode Validate(bool& upgraded);

    KImageDescription Image() const;
    void SetImage(const KImageDescription& image);

    // File offset of the first frame slot (header plus type section, a 32-bit sum).
    uint32_t FirstSlotOffset() const { return data.headerSize + data.typeSectionSize; }
    // File offset of frame n's slot (n >= 1), in 64-bit arithmetic.
    uint64_t SlotOffset(uint32_t frame) const {
        return uint64_t{FirstSlotOffset()} + uint64_t{frame - 1} * data.trueImageSize;
    }
    // image + 8-byte timestamp + per-frame metadata, rounded up to the sector size.
    static uint32_t SlotSize(uint32_t imageSizeBytes, uint32_t frameMetadataSize,
                             uint32_t sectorSize);

    bool IsBayer() const;
    // False unless the format is a Bayer format; values other than 0..3 read as 0.
    bool GetBayerPattern(eKBayerPatternOrigin& origin) const;
    void SetBayerPattern(eKBayerPatternOrigin origin) { data.bayerOrigin = origin; }

    bool HasReferenceTime() const { return (data.flags & kReferenceTimeFlag) != 0; }
    void SetReferenceTime(uint32_t seconds, uint16_t milliseconds, uint16_t microseconds);
    void ResetReferenceTime();
    bool GetReferenceTime(uint32_t& seconds, uint16_t& milliseconds, uint16_t& microseconds) const;

    // Description as text (at most 255 characters are kept) or as the raw 512 bytes.
    void SetDescription(const KChar* text);
    void SetDescriptionBytes(const uint8_t* bytes, size_t length);

    // Rising-timestamp bookkeeping of the writer.
    bool TimestampsKnownToRise() const {
        return data.risingMarker == kRisingTimestampsMarker &&
               data.risingFrames == data.allocatedFrames;
    }
    void SetRisingFrames(uint32_t frames) {
        data.risingMarker = kRisingTimestampsMarker;
        data.risingFrames = frames;
    }
    void ForgetRisingFrames() { data.risingMarker = 0, data.risingFrames = 0; }
};

}  // namespace kestor
