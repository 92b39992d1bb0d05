// Named settings (IKSettings) and adjustments (IKAdjustments) of the simulated camera.
#include <cmath>

#include "simulated/PixelFormats.h"
#include "simulated/SimulatedCamera.h"

namespace kestor::simulated {
namespace {

enum Setting : int32_t {
    kSettingTriggerMode,
    kSettingPixelFormat,
    kSettingTestPattern,
    kSettingBinning,
    kSettingFramePacing,
    kSettingCount
};

const KChar* const kSettingNames[kSettingCount] = {u"Trigger Mode", u"Pixel Format",
                                                   u"Test Pattern", u"Binning", u"Frame Pacing"};
const KChar* const kBinningNames[] = {u"1x1", u"2x2", u"4x4"};
const uint32_t kBinningFactors[] = {1, 2, 4};
const KChar* const kPacingNames[] = {u"Frame Rate", u"As Fast As Possible"};

int32_t ValueCount(int32_t setting) {
    switch (setting) {
        case kSettingTriggerMode:
            return static_cast<int32_t>(kTriggerModeCount);
        case kSettingPixelFormat:
            return static_cast<int32_t>(PixelFormatCount());
        case kSettingTestPattern:
            return static_cast<int32_t>(kTestPatternCount);
        case kSettingBinning:
            return 3;
        case kSettingFramePacing:
            return 2;
        default:
            return -1;
    }
}

const KChar* ValueName(int32_t setting, int32_t value) {
    switch (setting) {
        case kSettingTriggerMode:
            return kTriggerModeNames[value];
        case kSettingPixelFormat:
            return PixelFormatAt(static_cast<size_t>(value)).name;
        case kSettingTestPattern:
            return kTestPatternNames[value];
        case kSettingBinning:
            return kBinningNames[value];
        default:
            return kPacingNames[value];
    }
}

int32_t CurrentValue(int32_t setting, const SimulatedConfig& config) {
    switch (setting) {
        case kSettingTriggerMode:
            return static_cast<int32_t>(config.triggerMode);
        case kSettingPixelFormat:
            return static_cast<int32_t>(config.pixelFormat);
        case kSettingTestPattern:
            return static_cast<int32_t>(config.testPattern);
        case kSettingBinning:
            return config.binning == 4 ? 2 : config.binning == 2 ? 1 : 0;
        default:
            return config.freeRun ? 1 : 0;
    }
}

// Adjustments, by index.
enum Adjustment : int32_t {
    kAdjustExposure,
    kAdjustGain,
    kAdjustBlackLevel,
    kAdjustFrameRate,
    kAdjustmentCount
};

struct AdjustmentInfo {
    const KChar* name;
    bool isDouble;
    bool hasAutomatic;
    bool hasOneShot;
    double min, max;
};

const AdjustmentInfo kAdjustments[kAdjustmentCount] = {
    {u"Exposure", false, true, true, Limits::kMinExposureUs, Limits::kMaxExposureUs},
    {u"Gain", true, true, false, 0.0, Limits::kMaxGainDb},
    {u"Black Level", false, false, false, 0, Limits::kMaxBlackLevel},
    {u"Frame Rate", true, false, false, Limits::kMinFrameRate, Limits::kMaxFrameRate},
};

bool ValidAdjustment(int32_t index) {
    return index >= 0 && index < kAdjustmentCount;
}

double AdjustmentValue(int32_t index, const SimulatedConfig& config) {
    switch (index) {
        case kAdjustExposure:
            return config.exposureUs;
        case kAdjustGain:
            return config.gainDb;
        case kAdjustBlackLevel:
            return config.blackLevel;
        default:
            return config.frameRate;
    }
}

// Writing a value by hand ends the automatic mode, as on most cameras.
bool SetAdjustmentValue(int32_t index, double value, SimulatedConfig& config) {
    const AdjustmentInfo& info = kAdjustments[index];
    if (!(value >= info.min && value <= info.max)) return false;
    switch (index) {
        case kAdjustExposure:
            config.exposureUs = static_cast<uint32_t>(std::lround(value));
            config.exposureAuto = false;
            return true;
        case kAdjustGain:
            config.gainDb = value;
            config.gainAuto = false;
            return true;
        case kAdjustBlackLevel:
            config.blackLevel = static_cast<uint32_t>(std::lround(value));
            return true;
        default:
            config.frameRate = value;
            if (config.exposureAuto) config.exposureUs = AutoExposureUs(value);
            return true;
    }
}

}  // namespace

// --- IKSettings ---------------------------------------------------------------------------

KStatus SimulatedCamera::GetSettingsCount(int32_t* count) {
    if (count == nullptr) return kKPointer;
    *count = kSettingCount;
    return kKOk;
}

KStatus SimulatedCamera::GetValuesCount(int32_t setting, int32_t* count) {
    if (count == nullptr) return kKPointer;
    if (ValueCount(setting) < 0) return kKInvalidArgument;
    *count = ValueCount(setting);
    return kKOk;
}

KStatus SimulatedCamera::GetSettingsCaps(int32_t setting, KAbiChar* name, uint32_t capacity,
                                         int32_t* value) {
    if (ValueCount(setting) < 0) return kKInvalidArgument;
    KCopyName(name, capacity, kSettingNames[setting]);
    if (value != nullptr) *value = ValueCount(setting);  // the number of values
    return kKOk;
}

KStatus SimulatedCamera::GetValuesCaps(int32_t setting, int32_t value, KAbiChar* name,
                                       uint32_t capacity, int32_t* result) {
    if (value < 0 || value >= ValueCount(setting)) return kKInvalidArgument;
    KCopyName(name, capacity, ValueName(setting, value));
    if (result != nullptr) {  // the value's own number where it has one
        *result = setting == kSettingBinning ? static_cast<int32_t>(kBinningFactors[value])
                  : setting == kSettingPixelFormat
                      ? static_cast<int32_t>(PixelFormatAt(static_cast<size_t>(value)).format)
                      : value;
    }
    return kKOk;
}

KStatus SimulatedCamera::GetCurrentValues(int32_t setting, int32_t* value) {
    if (value == nullptr) return kKPointer;
    if (ValueCount(setting) < 0) return kKInvalidArgument;
    *value = CurrentValue(setting, Config());
    return kKOk;
}

KStatus SimulatedCamera::SetCurrentValues(int32_t setting, int32_t value) {
    if (value < 0 || value >= ValueCount(setting)) return kKInvalidArgument;
    const bool geometry = setting == kSettingPixelFormat || setting == kSettingBinning;
    return Change(
        [&](SimulatedConfig& config) {
            switch (setting) {
                case kSettingTriggerMode:
                    config.triggerMode = static_cast<TriggerMode>(value);
                    break;
                case kSettingPixelFormat:
                    config.pixelFormat = static_cast<uint32_t>(value);
                    break;
                case kSettingTestPattern:
                    config.testPattern = static_cast<TestPattern>(value);
                    break;
                case kSettingBinning:
                    RescaleGeometry(config, kBinningFactors[value]);
                    break;
                default:
                    config.freeRun = value == 1;
                    break;
            }
            return true;
        },
        geometry);
}

// --- IKAdjustments ---------------------------------------------------------------------------

KStatus SimulatedCamera::GetCount(int32_t* count) {
    if (count == nullptr) return kKPointer;
    *count = kAdjustmentCount;
    return kKOk;
}

KStatus SimulatedCamera::GetCaps(int32_t index, int32_t* id, KAbiChar* name, uint32_t capacity,
                                 int64_t* intMin, int64_t* intMax, double* doubleMin,
                                 double* doubleMax, int32_t* flag1, int32_t* flag2, int32_t* flag3,
                                 int32_t* flag4, int32_t* flag5) {
    if (!ValidAdjustment(index)) return kKInvalidArgument;
    const AdjustmentInfo& info = kAdjustments[index];
    if (id != nullptr) *id = index + 1;
    KCopyName(name, capacity, info.name);
    if (intMin != nullptr) *intMin = static_cast<int64_t>(std::ceil(info.min));
    if (intMax != nullptr) *intMax = static_cast<int64_t>(std::floor(info.max));
    if (doubleMin != nullptr) *doubleMin = info.min;
    if (doubleMax != nullptr) *doubleMax = info.max;
    if (flag1 != nullptr) *flag1 = info.isDouble ? 0 : 1;
    if (flag2 != nullptr) *flag2 = info.hasAutomatic ? 1 : 0;
    if (flag3 != nullptr) *flag3 = info.isDouble ? 1 : 0;
    if (flag4 != nullptr) *flag4 = info.hasOneShot ? 1 : 0;
    if (flag5 != nullptr) *flag5 = 0;
    return kKOk;
}

KStatus SimulatedCamera::GetIntegerValue(int32_t index, int64_t* value) {
    if (value == nullptr) return kKPointer;
    if (!ValidAdjustment(index)) return kKInvalidArgument;
    *value = std::llround(AdjustmentValue(index, Config()));
    return kKOk;
}

KStatus SimulatedCamera::SetIntegerValue(int32_t index, int64_t value) {
    if (!ValidAdjustment(index)) return kKInvalidArgument;
    return Change([&](SimulatedConfig& config) {
        return SetAdjustmentValue(index, static_cast<double>(value), config);
    });
}

KStatus SimulatedCamera::GetDoubleValue(int32_t index, double* value) {
    if (value == nullptr) return kKPointer;
    if (!ValidAdjustment(index)) return kKInvalidArgument;
    *value = AdjustmentValue(index, Config());
    return kKOk;
}

KStatus SimulatedCamera::SetDoubleValue(int32_t index, double value) {
    if (!ValidAdjustment(index)) return kKInvalidArgument;
    return Change(
        [&](SimulatedConfig& config) { return SetAdjustmentValue(index, value, config); });
}

KStatus SimulatedCamera::GetAutomatic(int32_t index, int32_t* automatic) {
    if (automatic == nullptr) return kKPointer;
    if (!ValidAdjustment(index)) return kKInvalidArgument;
    const SimulatedConfig config = Config();
    *automatic = index == kAdjustExposure ? config.exposureAuto
                 : index == kAdjustGain   ? config.gainAuto
                                          : 0;
    return kKOk;
}

KStatus SimulatedCamera::SetAutomatic(int32_t index, int32_t automatic) {
    if (!ValidAdjustment(index) || !kAdjustments[index].hasAutomatic) return kKInvalidArgument;
    return Change([&](SimulatedConfig& config) {
        if (index == kAdjustExposure) {
            config.exposureAuto = automatic != 0;
            if (config.exposureAuto) config.exposureUs = AutoExposureUs(config.frameRate);
        } else {
            config.gainAuto = automatic != 0;
            if (config.gainAuto) config.gainDb = kAutoGainDb;
        }
        return true;
    });
}

KStatus SimulatedCamera::OneShot(int32_t index) {
    if (!ValidAdjustment(index) || !kAdjustments[index].hasOneShot) return kKInvalidArgument;
    return Change([&](SimulatedConfig& config) {
        config.exposureUs = AutoExposureUs(config.frameRate);  // settle once, then stay
        config.exposureAuto = false;
        return true;
    });
}

}  // namespace kestor::simulated
