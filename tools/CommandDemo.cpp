// `kestor demo`: exercises the core types: images of several formats, timestamps, error texts.
#include <cstdint>
#include <cstdio>

#include "Commands.h"
#include "KError.h"
#include "KImage.h"
#include "KUtils.h"

namespace kestor::tool {

namespace {

struct FormatCase {
    uint32_t width, height, bitDepth, bitDepthReal;
    eKImageFormat format;
};

constexpr FormatCase kFormats[] = {
    {640, 480, 8, 8, eKFormatMono},           {2048, 2048, 16, 12, eKFormatMonoLE},
    {1280, 1024, 8, 8, eKFormatMonoBayer},    {1920, 1080, 24, 24, eKFormatBGR},
    {1920, 1080, 32, 24, eKFormatBGRx},       {1920, 1080, 24, 24, eKFormatBGRPlanar},
    {1280, 1024, 12, 12, eKFormatMonoPacked}, {720, 576, 16, 16, eKFormatYUV422},
};

}  // namespace

int RunDemo() {
    std::printf("Images\n");
    std::printf("  %-32s %11s %7s %10s %10s %8s  %s\n", "format", "size", "bits", "image B",
                "buffer B", "aligned", "timestamp");
    KImage first;
    KImage last;
    for (const FormatCase& c : kFormats) {
        KImage image;
        if (!image.ReallocateImage(c.width, c.height, c.bitDepth, c.bitDepthReal, c.format)) {
            std::printf("  could not allocate %ux%u\n", c.width, c.height);
            return 1;
        }
        const bool aligned = reinterpret_cast<uintptr_t>(image.GetRawImageData()) % 4096 == 0;
        std::printf("  %-32s %5ux%-5u %3u/%-3u %10u %10u %8s  %u.%03u.%03u\n",
                    KWideToUtf8(KImageFormatString(c.format)).c_str(), c.width, c.height,
                    c.bitDepth, c.bitDepthReal, image.GetImageSizeBytes(),
                    image.GetBufferSizeBytes(), aligned ? "yes" : "no", image.GetTimestamp(),
                    image.GetTimestampMS(), image.GetTimestampUS());
        if (first.GetRawImageData() == nullptr) KImage::CloneKImage(&first, &image);
        KImage::CloneKImage(&last, &image);
    }

    int32_t s;
    int16_t ms, us;
    bool positive;
    ComputeTimeDifference(static_cast<int32_t>(first.GetTimestamp()), first.GetTimestampMS(),
                          first.GetTimestampUS(), static_cast<int32_t>(last.GetTimestamp()),
                          last.GetTimestampMS(), last.GetTimestampUS(), s, ms, us, positive);
    std::printf("\nTime from the first image to the last: %s%d.%03d.%03d s\n", positive ? "" : "-",
                s, ms, us);

    std::printf("\nError texts\n");
    for (int code : {0, 47, 48, 60, 63, 164}) {
        std::printf(
            "  %4d  %s\n", code,
            KWideToUtf8(KErrorManager::GetErrorString(static_cast<eKErrorCode>(code))).c_str());
    }
    return 0;
}

}  // namespace kestor::tool
