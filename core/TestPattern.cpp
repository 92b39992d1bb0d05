// The exported fill and check of the test pattern; the layout is described in KTestPattern.h.
#include "KTestPattern.h"

#include <algorithm>
#include <cstring>

#include "core/TestPatternTable.h"

namespace {

using kestor::TestPatternTable;

void Store64(uint8_t* out, uint64_t value) {
    for (int i = 0; i < 8; ++i) out[i] = static_cast<uint8_t>(value >> (8 * i));
}
void Store32(uint8_t* out, uint32_t value) {
    for (int i = 0; i < 4; ++i) out[i] = static_cast<uint8_t>(value >> (8 * i));
}
uint64_t Load64(const uint8_t* in) {
    uint64_t value = 0;
    for (int i = 7; i >= 0; --i) value = value << 8 | in[i];
    return value;
}
uint32_t Load32(const uint8_t* in) {
    return static_cast<uint32_t>(in[0]) | static_cast<uint32_t>(in[1]) << 8 |
           static_cast<uint32_t>(in[2]) << 16 | static_cast<uint32_t>(in[3]) << 24;
}

}  // namespace

bool KTestPatternFill(uint8_t* pixels, const KImageDescription& description, uint64_t frameNumber) {
    if (pixels == nullptr) return false;
    const auto table = kestor::TestPatternTableFor(description);
    if (!table) return false;
    const size_t rowBytes = table->RowBytes();
    uint8_t* row = pixels;
    for (uint32_t r = 0; r < description.height; ++r, row += rowBytes) {
        std::memcpy(row, table->Row(frameNumber, r), rowBytes);
    }

    uint8_t* header = pixels;
    Store32(header, TestPatternTable::kHeaderMagic);
    Store32(header + 4, table->Tag());
    Store64(header + 8, frameNumber);
    Store64(header + 16, table->Checksum(frameNumber));
    Store64(header + 24, ~frameNumber);
    uint8_t* trailer = pixels + description.sizeBytes - TestPatternTable::kTrailerBytes;
    Store64(trailer, frameNumber);
    Store32(trailer + 8, TestPatternTable::kTrailerMagic);
    Store32(trailer + 12, table->Tag());
    return true;
}

bool KTestPatternVerify(const uint8_t* pixels, const KImageDescription& description,
                        uint64_t* frameNumber) {
    if (pixels == nullptr) return false;
    const auto table = kestor::TestPatternTableFor(description);
    if (!table) return false;

    const uint8_t* header = pixels;
    const uint64_t number = Load64(header + 8);
    if (Load32(header) != TestPatternTable::kHeaderMagic || Load32(header + 4) != table->Tag() ||
        Load64(header + 24) != ~number || Load64(header + 16) != table->Checksum(number)) {
        return false;
    }
    const size_t size = description.sizeBytes;
    const uint8_t* trailer = pixels + size - TestPatternTable::kTrailerBytes;
    if (Load64(trailer) != number || Load32(trailer + 8) != TestPatternTable::kTrailerMagic ||
        Load32(trailer + 12) != table->Tag()) {
        return false;
    }

    // Every byte between the stamps must be the pattern of this frame number: a torn frame
    // has rows of another phase, a corrupted one differs somewhere.
    const size_t rowBytes = table->RowBytes();
    const size_t bodyBegin = TestPatternTable::kHeaderBytes;
    const size_t bodyEnd = size - TestPatternTable::kTrailerBytes;
    for (uint32_t r = 0; r < description.height; ++r) {
        const size_t rowBegin = static_cast<size_t>(r) * rowBytes;
        const size_t begin = std::max(rowBegin, bodyBegin);
        const size_t end = std::min(rowBegin + rowBytes, bodyEnd);
        if (begin >= end) continue;
        const uint8_t* expected = table->Row(number, r) + (begin - rowBegin);
        if (std::memcmp(pixels + begin, expected, end - begin) != 0) return false;
    }
    if (frameNumber != nullptr) *frameNumber = number;
    return true;
}
