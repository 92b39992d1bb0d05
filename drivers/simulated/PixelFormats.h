// The pixel formats the simulated camera delivers, with how each is laid out.
#pragma once

#include <cstddef>
#include <cstdint>

#include "KTypes.h"

namespace kestor::simulated {

struct PixelFormatInfo {
    const KChar* name;      // as the camera lists it ("Mono 8", "Bayer RG 16" ...)
    uint32_t format;        // eKImageFormat
    uint32_t bitDepth;      // bits per pixel as delivered
    uint32_t bitDepthReal;  // significant bits
    int32_t bayerOrigin;    // eKBayerPatternOrigin at sensor pixel (0, 0); -1 for non-Bayer
};

size_t PixelFormatCount();
const PixelFormatInfo& PixelFormatAt(size_t index);  // index < PixelFormatCount()
// Index of the format called `name`, or -1.
int32_t FindPixelFormat(const KChar* name);

// The Bayer origin of an image whose first pixel lies at sensor position (x, y): an odd column
// swaps the colours of a row pair, an odd row swaps the rows.
uint32_t ShiftedBayerOrigin(uint32_t origin, uint32_t x, uint32_t y);

}  // namespace kestor::simulated
