#include "genicam/PixelFormatMap.h"

#include <iterator>

#include "KTypes.h"

namespace kestor::genicam {
namespace {

constexpr int32_t GR = eKBayerOriginGR;
constexpr int32_t RG = eKBayerOriginRG;
constexpr int32_t BG = eKBayerOriginBG;
constexpr int32_t GB = eKBayerOriginGB;
constexpr int32_t None = kNoBayerOrigin;

// Mono and Bayer data wider than 8 bits arrive LSB-aligned in 16-bit little-endian words,
// which is the plain mono format with a real bit depth below 16. The "p" formats are packed
// bit after bit (pixel packed); the GigE Vision "Packed" 12-bit formats put the high bytes of
// two pixels around a byte holding both low nibbles (the 8-4-4-8 layout). The GigE Vision
// 10-bit "Packed" formats use that layout with two unused bits per nibble, which no library
// format describes: they are delivered as format 0 with their bytes untouched.
const PixelFormatInfo kFormats[] = {
    {0x01080001, "Mono8", eKFormatMono, 8, 8, None},
    {0x01100003, "Mono10", eKFormatMono, 16, 10, None},
    {0x01100005, "Mono12", eKFormatMono, 16, 12, None},
    {0x01100025, "Mono14", eKFormatMono, 16, 14, None},
    {0x01100007, "Mono16", eKFormatMono, 16, 16, None},
    {0x010A0046, "Mono10p", eKFormatMonoPacked, 10, 10, None},
    {0x010C0047, "Mono12p", eKFormatMonoPacked, 12, 12, None},
    {0x010C0004, "Mono10Packed", eKFormatUnknown, 12, 10, None},
    {0x010C0006, "Mono12Packed", eKFormatMonoPackedAlt, 12, 12, None},
    {0x01080008, "BayerGR8", eKFormatMonoBayer, 8, 8, GR},
    {0x01080009, "BayerRG8", eKFormatMonoBayer, 8, 8, RG},
    {0x0108000A, "BayerGB8", eKFormatMonoBayer, 8, 8, GB},
    {0x0108000B, "BayerBG8", eKFormatMonoBayer, 8, 8, BG},
    {0x0110000C, "BayerGR10", eKFormatMonoBayer, 16, 10, GR},
    {0x0110000D, "BayerRG10", eKFormatMonoBayer, 16, 10, RG},
    {0x0110000E, "BayerGB10", eKFormatMonoBayer, 16, 10, GB},
    {0x0110000F, "BayerBG10", eKFormatMonoBayer, 16, 10, BG},
    {0x01100010, "BayerGR12", eKFormatMonoBayer, 16, 12, GR},
    {0x01100011, "BayerRG12", eKFormatMonoBayer, 16, 12, RG},
    {0x01100012, "BayerGB12", eKFormatMonoBayer, 16, 12, GB},
    {0x01100013, "BayerBG12", eKFormatMonoBayer, 16, 12, BG},
    {0x0110002E, "BayerGR16", eKFormatMonoBayer, 16, 16, GR},
    {0x0110002F, "BayerRG16", eKFormatMonoBayer, 16, 16, RG},
    {0x01100030, "BayerGB16", eKFormatMonoBayer, 16, 16, GB},
    {0x01100031, "BayerBG16", eKFormatMonoBayer, 16, 16, BG},
    {0x010A0056, "BayerGR10p", eKFormatMonoBayerPacked, 10, 10, GR},
    {0x010A0058, "BayerRG10p", eKFormatMonoBayerPacked, 10, 10, RG},
    {0x010A0054, "BayerGB10p", eKFormatMonoBayerPacked, 10, 10, GB},
    {0x010A0052, "BayerBG10p", eKFormatMonoBayerPacked, 10, 10, BG},
    {0x010C0057, "BayerGR12p", eKFormatMonoBayerPacked, 12, 12, GR},
    {0x010C0059, "BayerRG12p", eKFormatMonoBayerPacked, 12, 12, RG},
    {0x010C0055, "BayerGB12p", eKFormatMonoBayerPacked, 12, 12, GB},
    {0x010C0053, "BayerBG12p", eKFormatMonoBayerPacked, 12, 12, BG},
    {0x010C002A, "BayerGR12Packed", eKFormatMonoBayerPackedAlt, 12, 12, GR},
    {0x010C002B, "BayerRG12Packed", eKFormatMonoBayerPackedAlt, 12, 12, RG},
    {0x010C002C, "BayerGB12Packed", eKFormatMonoBayerPackedAlt, 12, 12, GB},
    {0x010C002D, "BayerBG12Packed", eKFormatMonoBayerPackedAlt, 12, 12, BG},
    {0x010C0026, "BayerGR10Packed", eKFormatUnknown, 12, 10, GR},
    {0x010C0027, "BayerRG10Packed", eKFormatUnknown, 12, 10, RG},
    {0x010C0028, "BayerGB10Packed", eKFormatUnknown, 12, 10, GB},
    {0x010C0029, "BayerBG10Packed", eKFormatUnknown, 12, 10, BG},
    {0x02180014, "RGB8", eKFormatRGB, 24, 8, None},
    {0x02180015, "BGR8", eKFormatBGR, 24, 8, None},
    {0x02100032, "YUV422_8", eKFormatYUV422, 16, 8, None},
    {0x0210001F, "YUV422_8_UYVY", eKFormatUVY422, 16, 8, None},
};

}  // namespace

PixelFormatInfo DescribePixelFormat(uint32_t pfnc) {
    for (const PixelFormatInfo& info : kFormats) {
        if (info.pfnc == pfnc) return info;
    }
    // Bits 16 to 23 of a PFNC code hold the bits per pixel.
    PixelFormatInfo unknown;
    unknown.pfnc = pfnc;
    unknown.bitDepth = (pfnc >> 16) & 0xFFu;
    unknown.realBitDepth = unknown.bitDepth;
    return unknown;
}

uint64_t ImageBytes(const PixelFormatInfo& info, uint32_t width, uint32_t height) {
    return (static_cast<uint64_t>(width) * height * info.bitDepth + 7) / 8;
}

}  // namespace kestor::genicam
