// Checks that go beyond header validation before a sequence file's frames are touched: a file
// may be damaged, cut short or hostile, and nothing read from it may lead to a crash or to an
// allocation that the file's own size does not justify.
#pragma once

#include <cstdint>

#include "KError.h"
#include "sequence/SequenceHeader.h"

namespace kestor {

// Whether the file holds uncompressed frames whose slots can be located: 58 for compressed or
// JPEG frames, 57 when the image size is not width x height x bit depth / 8 (also when that
// product does not fit in 32 bits), 53 when the slot size is 0 or cannot hold the image, its
// timestamp and its metadata area. eKErrSuccess otherwise.
eKErrorCode CheckFrameLayout(const SequenceHeaderData& header);

// A type section is read only when it is not larger than the readable limit and lies inside the
// file; otherwise the file is treated as carrying no metadata at all.
bool TypeSectionReadable(const SequenceHeaderData& header, uint64_t fileSize);
// Takes the file as carrying no metadata (no type section, no per-frame area).
void DropMetadata(SequenceHeaderData& header);

// Number of slots that lie completely inside a file of `fileSize` bytes.
uint32_t CompleteSlots(const SequenceHeader& header, uint64_t fileSize);

// Sends "Kestor: <text of reason>" to the debug channel, whatever the object's switches say, as
// header validation does for its reasons.
void ReportDamage(eKErrorCode reason);

}  // namespace kestor
