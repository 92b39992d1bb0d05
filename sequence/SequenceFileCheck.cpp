#include "sequence/SequenceFileCheck.h"

#include <limits>

#include "platform/DebugOutput.h"
#include "platform/WideString.h"
#include "sequence/MetadataLayout.h"

namespace kestor {

namespace {

constexpr uint64_t kTimestampBytes = 8;

}  // namespace

eKErrorCode CheckFrameLayout(const SequenceHeaderData& header) {
    if (header.compression != eKCompressionNone || header.imageFormat == eKFormatJpegEuresys)
        return eKErrFormatNotSupportedBySequence;
    const uint64_t expected = uint64_t{header.width} * header.height * header.bitDepth / 8;
    if (expected == 0 || expected != header.imageSizeBytes) return eKErrInvalidImageSize;
    const uint64_t needed =
        uint64_t{header.imageSizeBytes} + kTimestampBytes + header.frameMetadataSize;
    if (header.trueImageSize == 0 || header.trueImageSize < needed) return eKErrInvalidDataLength;
    return eKErrSuccess;
}

bool TypeSectionReadable(const SequenceHeaderData& header, uint64_t fileSize) {
    if (header.typeSectionSize > kMaxReadableTypeSectionSize) return false;
    return uint64_t{header.headerSize} + header.typeSectionSize <= fileSize;
}

void DropMetadata(SequenceHeaderData& header) {
    header.typeSectionSize = 0;
    header.frameMetadataSize = 0;
}

uint32_t CompleteSlots(const SequenceHeader& header, uint64_t fileSize) {
    const uint64_t first = header.FirstSlotOffset();
    if (header.data.trueImageSize == 0 || fileSize <= first) return 0;
    const uint64_t slots = (fileSize - first) / header.data.trueImageSize;
    return slots > std::numeric_limits<uint32_t>::max() ? std::numeric_limits<uint32_t>::max()
                                                        : static_cast<uint32_t>(slots);
}

void ReportDamage(eKErrorCode reason) {
    KChar line[1024];
    WideFormat(line, 1024, u"%s: %s\n", u"Kestor", KErrorManager::GetErrorString(reason));
    DebugOutput(line);
}

}  // namespace kestor
