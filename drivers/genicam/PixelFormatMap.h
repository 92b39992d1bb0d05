// How GenICam pixel formats (PFNC codes, as the camera's PixelFormat enumeration reports them)
// are delivered to the library: image format, bits per pixel as stored, significant bits and,
// for colour-filter sensors, the colour of the first pixel.
#pragma once

#include <cstdint>
#include <string>

namespace kestor::genicam {

inline constexpr int32_t kNoBayerOrigin = -1;

struct PixelFormatInfo {
    uint32_t pfnc = 0;          // the GenICam code
    const char* name = "";      // its GenICam name
    uint32_t imageFormat = 0;   // eKImageFormat; 0 when no format of the library fits exactly
    uint32_t bitDepth = 0;      // bits per pixel as delivered
    uint32_t realBitDepth = 0;  // significant bits (per channel for colour formats)
    int32_t bayerOrigin = kNoBayerOrigin;  // eKBayerPatternOrigin, or kNoBayerOrigin
};

// The description of `pfnc`. Codes the table does not know are delivered as they come: format
// 0 with the bits per pixel that the code itself carries.
PixelFormatInfo DescribePixelFormat(uint32_t pfnc);

// Bytes of a width x height image in that format (packed formats share bytes between pixels).
uint64_t ImageBytes(const PixelFormatInfo& info, uint32_t width, uint32_t height);

}  // namespace kestor::genicam
