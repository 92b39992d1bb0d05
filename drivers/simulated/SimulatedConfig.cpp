#include "simulated/SimulatedConfig.h"

#include <algorithm>
#include <cmath>

#include "simulated/PixelFormats.h"

namespace kestor::simulated {

const KChar* const kTriggerModeNames[kTriggerModeCount] = {u"Free Running", u"Software",
                                                           u"External"};
const KChar* const kTestPatternNames[kTestPatternCount] = {u"Moving Pattern", u"Black", u"White"};

const KChar* TriggerModeName(TriggerMode mode) {
    return kTriggerModeNames[static_cast<uint32_t>(mode) % kTriggerModeCount];
}

const KChar* TestPatternName(TestPattern pattern) {
    return kTestPatternNames[static_cast<uint32_t>(pattern) % kTestPatternCount];
}

bool IsValidBinning(uint32_t binning) {
    return binning == 1 || binning == 2 || binning == 4;
}

uint32_t MaxWidth(uint32_t binning) {
    return Limits::kSensorWidth / binning / Limits::kWidthStep * Limits::kWidthStep;
}

uint32_t MaxHeight(uint32_t binning) {
    return Limits::kSensorHeight / binning / Limits::kHeightStep * Limits::kHeightStep;
}

bool IsValidGeometry(uint32_t width, uint32_t height, uint32_t offsetX, uint32_t offsetY,
                     uint32_t binning) {
    if (!IsValidBinning(binning)) return false;
    if (width < Limits::kMinWidth || width % Limits::kWidthStep != 0) return false;
    if (height < Limits::kMinHeight || height % Limits::kHeightStep != 0) return false;
    // 64-bit sums: a huge offset must not wrap around into range.
    return static_cast<uint64_t>(offsetX) + width <= Limits::kSensorWidth / binning &&
           static_cast<uint64_t>(offsetY) + height <= Limits::kSensorHeight / binning;
}

void RescaleGeometry(SimulatedConfig& config, uint32_t newBinning) {
    const uint32_t old = config.binning;
    auto scale = [&](uint32_t value) {
        return static_cast<uint32_t>(static_cast<uint64_t>(value) * old / newBinning);
    };
    uint32_t width = scale(config.width) / Limits::kWidthStep * Limits::kWidthStep;
    uint32_t height = scale(config.height) / Limits::kHeightStep * Limits::kHeightStep;
    width = std::clamp(width, Limits::kMinWidth, MaxWidth(newBinning));
    height = std::clamp(height, Limits::kMinHeight, MaxHeight(newBinning));
    const uint32_t offsetX =
        std::min(scale(config.offsetX), Limits::kSensorWidth / newBinning - width);
    const uint32_t offsetY =
        std::min(scale(config.offsetY), Limits::kSensorHeight / newBinning - height);
    config.width = width;
    config.height = height;
    config.offsetX = offsetX;
    config.offsetY = offsetY;
    config.binning = newBinning;
}

KImageDescription DescribeImage(const SimulatedConfig& config) {
    const PixelFormatInfo& format = PixelFormatAt(config.pixelFormat);
    KImageDescription description;
    description.width = config.width;
    description.height = config.height;
    description.bitDepth = format.bitDepth;
    description.bitDepthReal = format.bitDepthReal;
    description.sizeBytes = static_cast<uint32_t>(static_cast<uint64_t>(config.width) *
                                                  config.height * format.bitDepth / 8);
    description.format = format.format;
    return description;
}

int32_t DeliveredBayerOrigin(const SimulatedConfig& config) {
    const PixelFormatInfo& format = PixelFormatAt(config.pixelFormat);
    if (format.bayerOrigin < 0) return -1;
    return static_cast<int32_t>(ShiftedBayerOrigin(static_cast<uint32_t>(format.bayerOrigin),
                                                   config.offsetX * config.binning,
                                                   config.offsetY * config.binning));
}

uint32_t AutoExposureUs(double frameRate) {
    // Most of the frame period, as a camera facing a dim scene would choose.
    const double period = 1e6 / std::max(frameRate, Limits::kMinFrameRate);
    const double exposure = std::min(period * 0.8, 20000.0);
    return std::clamp(static_cast<uint32_t>(std::lround(exposure)), Limits::kMinExposureUs,
                      Limits::kMaxExposureUs);
}

}  // namespace kestor::simulated
