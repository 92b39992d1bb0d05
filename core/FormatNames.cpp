// Display names of the image formats and compressions.
#include "KUtils.h"
#include "core/ImageFormats.h"
#include "platform/DebugOutput.h"
#include "platform/WideString.h"

namespace {

// Unknown values are reported on the debug channel whatever any object's switches say.
void ReportUnknown(const KChar* pattern, uint32_t value) {
    KChar text[128];
    kestor::WideFormat(text, 128, pattern, static_cast<int>(value));
    KChar line[256];
    kestor::WideFormat(line, 256, u"%s: %s\n", u"Kestor", text);
    kestor::DebugOutput(line);
}

}  // namespace

const KChar* kestor::ImageFormatName(uint32_t format) {
    switch (format) {
        case 0:
            return u"Format Unknown";
        case 100:
            return u"Monochrome image";
        case 101:
            return u"Monochrome Bayer image";
        case 112:
            return u"Monochrome(LE) image";
        case 113:
            return u"Monochrome Bayer(LE)image";
        case 114:
            return u"Monochrome(BE)image";
        case 115:
            return u"Monochrome Bayer(BE)image";
        case 123:
            return u"BGR 10 bits Pixel Packed";
        case 124:
            return u"BGR 10 bits Pixel Packed";
        case 125:
            return u"RGB 10 bits Pixel Packed";
        case 131:
            return u"Monochrome Pixel Packed image";
        case 132:
            return u"Monochrome Bayer Pixel Packed image";
        case 133:
            return u"Monochrome Pixel Packed image";
        case 134:
            return u"Monochrome Bayer Pixel Packed image";
        case 135:
            return u"GVSP BGR 10 bits Pixel Packed V1";
        case 136:
            return u"GVSP BGR 10 bits Pixel Packed V2";
        case 200:
            return u"BGR packed image";
        case 300:
            return u"BGR planar image";
        case 400:
            return u"RGB packed image";
        case 500:
            return u"BGRx packed image";
        case 600:
            return u"YUV422 packed image";
        case 610:
            return u"YCrCb422 packed 20bit image";
        case 620:
            return u"YUV422 10bit Pixel Packed";
        case 700:
            return u"UVY422 packed image";
        case 800:
            return u"UVY411 packed image";
        case 900:
            return u"UVY444 packed image";
        case 905:
            return u"BGR555 packed image";
        case 906:
            return u"BGR565 packed image";
        case 910:
            return u"Monochrome PCO Pixel Packed";
        case 920:
            return u"Monochrome Bayer PCO Pixel Packed";
        case 1001:
            return u"JPEG (Euresys)";
        case 1002:
            return u"JPEG (ISG1394)";
        case 1003:
            return u"Photon Focus Double Rate";
        default:
            return nullptr;
    }
}

const KChar* KImageFormatString(eKImageFormat format) {
    if (const KChar* name = kestor::ImageFormatName(format)) return name;
    ReportUnknown(u"Unsupported format is #%d", format);
    return u"Unsupported format";
}

bool kestor::IsFormatBayer(uint32_t format) {
    switch (format) {
        case eKFormatMonoBayer:
        case eKFormatMonoBayerLE:
        case eKFormatMonoBayerBE:
        case eKFormatMonoBayerPacked:
        case eKFormatMonoBayerPackedAlt:
            return true;
        default:
            return false;
    }
}

const KChar* KImageCompressionString(eKCompression compression) {
    switch (static_cast<uint32_t>(compression)) {
        case 0:
            return u"None (Raw image)";
        case 1:
            return u"JPEG";
        case 2:
            return u"RLE";
        case 3:
            return u"Huffman";
        case 4:
            return u"LZ";
        case 5:
            return u"RLE (Fast)";
        case 6:
            return u"Huffman (Fast)";
        case 7:
            return u"LZ (Fast)";
        case 8:
            return u"H264";
        case 9:
            return u"Wavelet";
        case 10:
            return u"Createc BYR(Flat 1D)";
        case 11:
            return u"Createc BYR (Flat 2D)";
        case 12:
            return u"Createc BYR(Blue Vector 1D)";
        case 13:
            return u"Createc(BYR Green Average)";
        case 14:
            return u"Createc BYR(Flat 2D Lossy)";
        case 15:
            return u"Createc BYR(Flat 2D SSE)";
        default:
            ReportUnknown(u"Unknown compression ID #%d", compression);
            return u"Unknown compression";
    }
}

bool IsFormatMono(eKImageFormat format) {
    switch (static_cast<uint32_t>(format)) {
        case 100:
        case 101:
        case 112:
        case 113:
        case 114:
        case 115:
        case 131:
        case 132:
        case 133:
        case 134:
        case 1003:
            return true;
        default:
            return false;
    }
}
