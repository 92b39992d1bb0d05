// The periodic byte table behind the test pattern (see api/KTestPattern.h): built once per
// image description, so that a frame is produced by copying rows out of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "KImage.h"

namespace kestor {

class TestPatternTable {
public:
    static constexpr uint32_t kPeriodGroups = 1021;  // prime: frames repeat only after 1021
    static constexpr uint32_t kFrameStepGroups = 4;  // how far the picture moves per frame
    static constexpr size_t kHeaderBytes = 32;
    static constexpr size_t kTrailerBytes = 16;
    static constexpr uint32_t kHeaderMagic = 0x3150544Bu;   // "KTP1"
    static constexpr uint32_t kTrailerMagic = 0x4550544Bu;  // "KTPE"

    // Whole bytes per row, a size that matches width x height x bit depth, room for the stamps.
    static bool CanCarry(const KImageDescription& description);

    explicit TestPatternTable(const KImageDescription& description);

    const KImageDescription& Description() const { return description_; }
    size_t RowBytes() const { return rowBytes_; }
    // The bytes of `row` of frame `frame` (RowBytes() of them).
    const uint8_t* Row(uint64_t frame, uint32_t row) const {
        return bytes_.data() + static_cast<size_t>(Phase(frame, row)) * groupBytes_;
    }
    // Sum of every pattern byte of the frame before the header and trailer are stamped.
    uint64_t Checksum(uint64_t frame) const;
    // Identifies the description, so that a frame is not accepted under another geometry.
    uint32_t Tag() const { return tag_; }

private:
    uint32_t Phase(uint64_t frame, uint32_t row) const {
        return static_cast<uint32_t>(
            (row % kPeriodGroups + (frame % kPeriodGroups) * kFrameStepGroups) % kPeriodGroups);
    }
    void EncodeGroup(uint8_t* out, uint32_t periodGroup) const;

    KImageDescription description_;
    uint32_t groupBytes_ = 1;   // smallest run of whole bytes holding whole pixels
    uint32_t groupPixels_ = 1;  // pixels in such a run
    size_t rowBytes_ = 0;
    uint32_t tag_ = 0;
    std::vector<uint8_t> bytes_;     // kPeriodGroups groups, then enough to finish any row
    std::vector<uint64_t> rowSums_;  // byte sum of a row starting at each phase
};

// The table of `description`, reused while the calling thread keeps asking for the same one.
// Null when the description cannot carry the pattern.
std::shared_ptr<const TestPatternTable> TestPatternTableFor(const KImageDescription& description);

}  // namespace kestor
