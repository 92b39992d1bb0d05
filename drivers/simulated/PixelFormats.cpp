#include "simulated/PixelFormats.h"

#include <string_view>

namespace kestor::simulated {
namespace {

constexpr int32_t kNotBayer = -1;

const PixelFormatInfo kFormats[] = {
    {u"Mono 8", eKFormatMono, 8, 8, kNotBayer},
    {u"Mono 10", eKFormatMono, 16, 10, kNotBayer},
    {u"Mono 12", eKFormatMono, 16, 12, kNotBayer},
    {u"Mono 16", eKFormatMono, 16, 16, kNotBayer},
    {u"Bayer GR 8", eKFormatMonoBayer, 8, 8, eKBayerOriginGR},
    {u"Bayer RG 8", eKFormatMonoBayer, 8, 8, eKBayerOriginRG},
    {u"Bayer GB 8", eKFormatMonoBayer, 8, 8, eKBayerOriginGB},
    {u"Bayer BG 8", eKFormatMonoBayer, 8, 8, eKBayerOriginBG},
    {u"Bayer GR 16", eKFormatMonoBayer, 16, 16, eKBayerOriginGR},
    {u"Bayer RG 16", eKFormatMonoBayer, 16, 16, eKBayerOriginRG},
    {u"Bayer GB 16", eKFormatMonoBayer, 16, 16, eKBayerOriginGB},
    {u"Bayer BG 16", eKFormatMonoBayer, 16, 16, eKBayerOriginBG},
    {u"Mono 10 Packed", eKFormatMonoPacked, 10, 10, kNotBayer},
    {u"Mono 12 Packed", eKFormatMonoPacked, 12, 12, kNotBayer},
    {u"BGR 8", eKFormatBGR, 24, 8, kNotBayer},
    {u"BGRx 8", eKFormatBGRx, 32, 8, kNotBayer},
    {u"YUV 422", eKFormatYUV422, 16, 8, kNotBayer},
};

}  // namespace

size_t PixelFormatCount() {
    return sizeof kFormats / sizeof kFormats[0];
}

const PixelFormatInfo& PixelFormatAt(size_t index) {
    return kFormats[index < PixelFormatCount() ? index : 0];
}

int32_t FindPixelFormat(const KChar* name) {
    if (name == nullptr) return -1;
    for (size_t i = 0; i < PixelFormatCount(); ++i) {
        if (std::u16string_view(kFormats[i].name) == std::u16string_view(name)) {
            return static_cast<int32_t>(i);
        }
    }
    return -1;
}

uint32_t ShiftedBayerOrigin(uint32_t origin, uint32_t x, uint32_t y) {
    // Rows of the filter: GR/BG pair up, RG/GB pair up; columns: GR<->RG, GB<->BG.
    if (x % 2 == 1) {
        switch (origin) {
            case eKBayerOriginGR:
                origin = eKBayerOriginRG;
                break;
            case eKBayerOriginRG:
                origin = eKBayerOriginGR;
                break;
            case eKBayerOriginGB:
                origin = eKBayerOriginBG;
                break;
            case eKBayerOriginBG:
                origin = eKBayerOriginGB;
                break;
            default:
                break;
        }
    }
    if (y % 2 == 1) {
        switch (origin) {
            case eKBayerOriginGR:
                origin = eKBayerOriginBG;
                break;
            case eKBayerOriginBG:
                origin = eKBayerOriginGR;
                break;
            case eKBayerOriginRG:
                origin = eKBayerOriginGB;
                break;
            case eKBayerOriginGB:
                origin = eKBayerOriginRG;
                break;
            default:
                break;
        }
    }
    return origin;
}

}  // namespace kestor::simulated
