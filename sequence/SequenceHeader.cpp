#include "sequence/SequenceHeader.h"

#include "core/ImageFormats.h"

#include <cstring>

#include "platform/DebugOutput.h"
#include "platform/WideString.h"

namespace kestor {

namespace {

constexpr double kDefaultFrameRate = 30.0;
constexpr uint32_t kDefaultCompressionParameter1 = 30;
constexpr uint32_t kDefaultCompressionParameter2 = 5000000;

void CopyText(uint16_t* field, size_t fieldUnits, const KChar* text, size_t limit) {
    std::memset(field, 0, fieldUnits * sizeof(uint16_t));
    for (size_t i = 0; text != nullptr && text[i] != 0 && i < limit && i < fieldUnits - 1; ++i)
        field[i] = static_cast<uint16_t>(text[i]);
}

// A failed check is always reported on the debug channel, whatever the object's switches say.
eKErrorCode Reject(eKErrorCode reason) {
    KChar line[1024];
    WideFormat(line, 1024, u"%s: %s\n", u"Kestor", KErrorManager::GetErrorString(reason));
    DebugOutput(line);
    return reason;
}

struct LegacyFormat {
    uint32_t legacy;
    uint32_t format;
    uint32_t compression;
};

// Image format codes of headers older than version 4 and what they are now.
constexpr LegacyFormat kLegacyFormats[] = {
    {2105, eKFormatMonoBayer, eKCompressionNone}, {2202, eKFormatBGR, eKCompressionNone},
    {3203, eKFormatBGR, eKCompressionNone},       {2302, eKFormatBGRPlanar, eKCompressionNone},
    {2402, eKFormatRGB, eKCompressionNone},       {2502, eKFormatBGRx, eKCompressionNone},
    {2602, eKFormatYUV422, eKCompressionNone},    {2702, eKFormatUVY422, eKCompressionNone},
};

}  // namespace

void SequenceHeader::Reset() {
    std::memset(&data, 0, sizeof data);
    data.magic = kSequenceMagic;
    CopyText(data.name, 12, u"Tavlin seq", 11);
    data.version = kSequenceVersion;
    data.headerSize = kSequenceHeaderSize;
    CopyText(data.description, 256, u"No Description", 255);
    data.frameRate = kDefaultFrameRate;
    data.compressionParameter1 = kDefaultCompressionParameter1;
    data.compressionParameter2 = kDefaultCompressionParameter2;
}

eKErrorCode SequenceHeader::Validate(bool& upgraded) {
    upgraded = false;
    if (data.magic != kSequenceMagic) return Reject(eKErrInvalidMagic);
    if (data.headerSize != kSequenceHeaderSize) return Reject(eKErrInvalidHeaderSize);
    if (data.frameRate < 0.0) return Reject(eKErrInvalidFrameRate);
    if (data.width == 0) return Reject(eKErrInvalidWidth);
    if (data.height == 0) return Reject(eKErrInvalidHeight);
    if (data.bitDepth == 0 || data.bitDepthReal == 0) return Reject(eKErrInvalidBitDepth);
    if (data.imageSizeBytes == 0) return Reject(eKErrInvalidImageSize);
    if (data.version >= kSequenceVersion) return eKErrSuccess;

    // Older headers named the format with codes of their own; map them in memory only.
    for (const LegacyFormat& entry : kLegacyFormats) {
        if (entry.legacy == data.imageFormat) {
            data.imageFormat = entry.format;
            data.compression = entry.compression;
            data.version = kSequenceVersion;
            upgraded = true;
            return eKErrSuccess;
        }
    }
    if (ImageFormatName(data.imageFormat) != nullptr && data.imageFormat != eKFormatUnknown) {
        data.compression = eKCompressionNone;
        data.version = kSequenceVersion;
        upgraded = true;
        return eKErrSuccess;
    }
    return Reject(eKErrFormatNotSupportedBySequence);
}

KImageDescription SequenceHeader::Image() const {
    return {data.width,        data.height,         data.bitDepth,
            data.bitDepthReal, data.imageSizeBytes, data.imageFormat};
}

void SequenceHeader::SetImage(const KImageDescription& image) {
    data.width = image.width;
    data.height = image.height;
    data.bitDepth = image.bitDepth;
    data.bitDepthReal = image.bitDepthReal;
    data.imageSizeBytes = image.sizeBytes;
    data.imageFormat = image.format;
}

uint32_t SequenceHeader::SlotSize(uint32_t imageSizeBytes, uint32_t frameMetadataSize,
                                  uint32_t sectorSize) {
    const uint64_t bytes = uint64_t{imageSizeBytes} + 8 + frameMetadataSize;
    const uint64_t sector = sectorSize == 0 ? 512 : sectorSize;
    const uint64_t rounded = (bytes + sector - 1) / sector * sector;
    return rounded > 0xFFFFFFFFu ? 0 : static_cast<uint32_t>(rounded);
}

bool SequenceHeader::IsBayer() const {
    return IsFormatBayer(data.imageFormat);
}

bool SequenceHeader::GetBayerPattern(eKBayerPatternOrigin& origin) const {
    if (!IsBayer()) return false;
    origin = data.bayerOrigin <= 3 ? static_cast<eKBayerPatternOrigin>(data.bayerOrigin)
                                   : eKBayerOriginGR;
    return true;
}

void SequenceHeader::SetReferenceTime(uint32_t seconds, uint16_t milliseconds,
                                      uint16_t microseconds) {
    data.referenceSeconds = seconds;
    data.referenceMilliseconds = milliseconds;
    data.referenceMicroseconds = microseconds;
    data.flags |= kReferenceTimeFlag;
}

void SequenceHeader::ResetReferenceTime() {
    data.referenceSeconds = 0;
    data.referenceMilliseconds = 0;
    data.referenceMicroseconds = 0;
    data.flags &= ~kReferenceTimeFlag;
}

bool SequenceHeader::GetReferenceTime(uint32_t& seconds, uint16_t& milliseconds,
                                      uint16_t& microseconds) const {
    if (!HasReferenceTime()) return false;
    seconds = data.referenceSeconds;
    milliseconds = data.referenceMilliseconds;
    microseconds = data.referenceMicroseconds;
    return true;
}

void SequenceHeader::SetDescription(const KChar* text) {
    CopyText(data.description, 256, text, 255);
}

void SequenceHeader::SetDescriptionBytes(const uint8_t* bytes, size_t length) {
    std::memset(data.description, 0, sizeof data.description);
    if (bytes != nullptr)
        std::memcpy(data.description, bytes,
                    length < sizeof data.description ? length : sizeof data.description);
}

}  // namespace kestor
