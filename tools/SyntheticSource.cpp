#include "SyntheticSource.h"

#include <cstring>

namespace kestor::tool {

SyntheticSource::SyntheticSource(uint32_t width, uint32_t height, uint32_t bitDepth)
    : width_(width), height_(height), bitDepth_(bitDepth) {}

void SyntheticSource::Next(KImage& image, uint64_t number, int64_t us) {
    const eKImageFormat format = bitDepth_ > 8 ? eKFormatMonoLE : eKFormatMono;
    if (image.GetImageWidth() != width_ || image.GetImageHeight() != height_ ||
        image.GetImageBitDepth() != bitDepth_)
        image.ReallocateImage(width_, height_, bitDepth_, bitDepth_, format);
    uint8_t* pixels = image.GetRawImageData();
    const uint32_t rowBytes = width_ * bitDepth_ / 8;
    for (uint32_t y = 0; y < height_; ++y) {
        uint8_t* row = pixels + static_cast<size_t>(y) * rowBytes;
        const auto shift = static_cast<uint8_t>(y + number * 3);
        for (uint32_t x = 0; x < rowBytes; ++x) row[x] = static_cast<uint8_t>(x + shift);
    }
    if (image.GetImageSizeBytes() >= sizeof number) std::memcpy(pixels, &number, sizeof number);
    image.SetTimestamp(static_cast<uint32_t>(us / 1000000), static_cast<uint16_t>(us / 1000 % 1000),
                       static_cast<uint16_t>(us % 1000));
}

uint64_t SyntheticSource::FrameNumberOf(const KImage& image) {
    uint64_t number = 0;
    if (image.GetRawImageData() != nullptr && image.GetImageSizeBytes() >= sizeof number)
        std::memcpy(&number, image.GetRawImageData(), sizeof number);
    return number;
}

}  // namespace kestor::tool
