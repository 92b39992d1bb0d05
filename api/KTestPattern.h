// The moving test pattern of the simulated camera. Every frame carries its number and a
// checksum in its pixels, so that a recording can be proven complete and intact from the
// pixels alone: nothing lost, repeated, reordered, torn (parts of two frames) or corrupted.
//
// Layout, on the bytes of the image whatever its pixel format:
//  - rows are copies of one periodic table built for the image description; row r of frame n
//    starts at table phase (r + 4n) modulo the period, so the picture is a diagonal ramp that
//    moves with the frame number;
//  - the first 32 bytes are a header (little-endian): "KTP1", a tag of the description, the
//    frame number, a checksum (sum of the pattern bytes of the frame, before stamping) and the
//    complement of the frame number;
//  - the last 16 bytes are a trailer: the frame number, "KTPE" and the description tag again.
// Images need whole bytes per row and at least 64 bytes.
#pragma once

#include <cstdint>

#include "KImage.h"
#include "KTypes.h"

// Fills `pixels` (description.sizeBytes bytes) with frame `frameNumber`. False when the
// description cannot carry the pattern (size inconsistent with width, height and bit depth,
// rows of partial bytes, or fewer than 64 bytes). Costs about one copy of the frame.
KESTOR_API bool KTestPatternFill(uint8_t* pixels, const KImageDescription& description,
                                 uint64_t frameNumber);

// True when `pixels` are an intact pattern frame of exactly this description; the frame
// number is then stored through `frameNumber` (may be null). False for a torn, corrupted or
// foreign image and for a description other than the one it was filled with.
KESTOR_API bool KTestPatternVerify(const uint8_t* pixels, const KImageDescription& description,
                                   uint64_t* frameNumber);
