// Everything the simulated camera can be set to, its limits and the rules that tie the
// values together (geometry within the sensor, binning, pixel format).
#pragma once

#include <cstdint>

#include "KImage.h"

namespace kestor::simulated {

enum class TriggerMode : uint32_t { FreeRunning = 0, Software = 1, External = 2 };
inline constexpr uint32_t kTriggerModeCount = 3;
extern const KChar* const kTriggerModeNames[kTriggerModeCount];  // "Free Running" ...

// Only the moving pattern carries frame numbers (KTestPattern.h); the others are plain fills.
enum class TestPattern : uint32_t { Moving = 0, Black = 1, White = 2 };
inline constexpr uint32_t kTestPatternCount = 3;
extern const KChar* const kTestPatternNames[kTestPatternCount];

const KChar* TriggerModeName(TriggerMode mode);
const KChar* TestPatternName(TestPattern pattern);

struct Limits {
    static constexpr uint32_t kSensorWidth = 4096;
    static constexpr uint32_t kSensorHeight = 3072;
    static constexpr uint32_t kWidthStep = 16;  // keeps packed rows in whole bytes
    static constexpr uint32_t kHeightStep = 2;  // whole Bayer row pairs
    static constexpr uint32_t kMinWidth = 64;
    static constexpr uint32_t kMinHeight = 16;
    static constexpr double kMinFrameRate = 0.1;
    static constexpr double kMaxFrameRate = 100000.0;
    static constexpr uint32_t kMinExposureUs = 10;
    static constexpr uint32_t kMaxExposureUs = 1000000;
    static constexpr double kMaxGainDb = 24.0;
    static constexpr uint32_t kMaxBlackLevel = 255;
    static constexpr uint32_t kMaxBuffers = 1024;
};

// Geometry is in delivered (binned) pixels: the sensor region is these values times binning.
struct SimulatedConfig {
    uint32_t width = 1024;
    uint32_t height = 768;
    uint32_t offsetX = 0;
    uint32_t offsetY = 0;
    uint32_t binning = 1;      // 1, 2 or 4
    uint32_t pixelFormat = 0;  // index into the pixel format table
    TriggerMode triggerMode = TriggerMode::FreeRunning;
    TestPattern testPattern = TestPattern::Moving;
    double frameRate = 100.0;  // frames per second when paced
    bool freeRun = false;      // as fast as the reader takes frames, ignoring the frame rate
    uint32_t exposureUs = 5000;
    bool exposureAuto = false;
    double gainDb = 0.0;
    bool gainAuto = false;
    uint32_t blackLevel = 0;
    uint64_t memoryLimit = 0;  // bytes of buffers SetBufferCount may take; 0 = no limit
    bool failInitialize = false;
    uint32_t failAfterFrames = 0;   // QueueGrab fails after this many frames; 0 = never
    uint32_t nullWaitEvery = 0;     // every n-th image WaitImage returns null first; 0 = never
    uint32_t timeSourceStatus = 2;  // driver value of the time source status (synchronised)
    uint32_t digitalOutputs = 0;    // bit per output line
    bool videoOutput = false;
};

bool IsValidBinning(uint32_t binning);
// The geometry fits the binned sensor and keeps the alignment.
bool IsValidGeometry(uint32_t width, uint32_t height, uint32_t offsetX, uint32_t offsetY,
                     uint32_t binning);
uint32_t MaxWidth(uint32_t binning);
uint32_t MaxHeight(uint32_t binning);

// The same region of the sensor seen with another binning, aligned and clamped.
void RescaleGeometry(SimulatedConfig& config, uint32_t newBinning);

// The description of the images delivered with this configuration.
KImageDescription DescribeImage(const SimulatedConfig& config);
// eKBayerPatternOrigin of the first delivered pixel; -1 when the format is not Bayer.
int32_t DeliveredBayerOrigin(const SimulatedConfig& config);

// What automatic exposure settles on at this frame rate.
uint32_t AutoExposureUs(double frameRate);
inline constexpr double kAutoGainDb = 6.0;

}  // namespace kestor::simulated
