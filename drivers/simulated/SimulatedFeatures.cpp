// The advanced-settings features (IKAdvancedFeatures) of the simulated camera: categories of
// typed features in the manner of GenICam, reaching the same configuration as the other
// interfaces.
#include <cmath>
#include <cstdint>

#include "KGrab.h"
#include "simulated/PixelFormats.h"
#include "simulated/SimulatedCamera.h"

namespace kestor::simulated {
namespace {

enum class Key {
    Width,
    Height,
    OffsetX,
    OffsetY,
    PixelFormat,
    Binning,
    SensorWidth,
    SensorHeight,
    FrameRate,
    FreeRun,
    TriggerMode,
    TriggerSoftware,
    TestPattern,
    Gain,
    GainAuto,
    ExposureTime,
    ExposureAuto,
    BlackLevel,
    FailAfterFrames,
    NullWaitEvery,
    MemoryLimit,
    FailInitialize,
    TimeSourceStatus,
    FramesDelivered,
    FramesLost,
};

struct Feature {
    Key key;
    const KChar* name;
    int32_t type;  // eAdvanceSettingsFeatureType
    int32_t level;
    bool readOnly;
    bool geometry;  // locked while streaming
    const KChar* description;
};

struct Category {
    const KChar* name;
    const Feature* features;
    int32_t count;
};

constexpr int32_t kInt = eAdvanceSettingsInteger, kDouble = eAdvanceSettingsDouble,
                  kBool = eAdvanceSettingsBool, kEnum = eAdvanceSettingsEnumeration,
                  kCommand = eAdvanceSettingsCommand;
constexpr int32_t kBeginner = eAdvanceSettingsBeginner, kExpert = eAdvanceSettingsExpert,
                  kGuru = eAdvanceSettingsGuru;

const Feature kImageFormat[] = {
    {Key::Width, u"Width", kInt, kBeginner, false, true, u"Image width in delivered pixels"},
    {Key::Height, u"Height", kInt, kBeginner, false, true, u"Image height in delivered pixels"},
    {Key::OffsetX, u"OffsetX", kInt, kBeginner, false, true, u"Left edge of the region"},
    {Key::OffsetY, u"OffsetY", kInt, kBeginner, false, true, u"Top edge of the region"},
    {Key::PixelFormat, u"PixelFormat", kEnum, kBeginner, false, true, u"Pixel format"},
    {Key::Binning, u"Binning", kEnum, kExpert, false, true, u"Pixels combined per axis"},
    {Key::SensorWidth, u"SensorWidth", kInt, kExpert, true, false, u"Sensor width"},
    {Key::SensorHeight, u"SensorHeight", kInt, kExpert, true, false, u"Sensor height"},
};
const Feature kAcquisition[] = {
    {Key::FrameRate, u"AcquisitionFrameRate", kDouble, kBeginner, false, false,
     u"Frames per second when paced"},
    {Key::FreeRun, u"FreeRun", kBool, kBeginner, false, false,
     u"Deliver frames as fast as the reader takes them"},
    {Key::TriggerMode, u"TriggerMode", kEnum, kBeginner, false, false, u"What starts a frame"},
    {Key::TriggerSoftware, u"TriggerSoftware", kCommand, kBeginner, false, false,
     u"Starts one frame in software trigger mode"},
    {Key::TestPattern, u"TestPattern", kEnum, kExpert, false, false, u"What the frames show"},
};
const Feature kAnalog[] = {
    {Key::Gain, u"Gain", kDouble, kBeginner, false, false, u"Gain in dB"},
    {Key::GainAuto, u"GainAuto", kEnum, kBeginner, false, false, u"Automatic gain"},
    {Key::ExposureTime, u"ExposureTime", kInt, kBeginner, false, false, u"Exposure in us"},
    {Key::ExposureAuto, u"ExposureAuto", kEnum, kBeginner, false, false, u"Automatic exposure"},
    {Key::BlackLevel, u"BlackLevel", kInt, kExpert, false, false, u"Black level offset"},
};
const Feature kTest[] = {
    {Key::FailAfterFrames, u"FailAfterFrames", kInt, kGuru, false, false,
     u"A grab fails after this many frames (0: never)"},
    {Key::NullWaitEvery, u"NullWaitEvery", kInt, kGuru, false, false,
     u"Every n-th image is held back for one wait (0: never)"},
    {Key::MemoryLimit, u"MemoryLimit", kInt, kGuru, false, false,
     u"Bytes the buffers may take (0: no limit)"},
    {Key::FailInitialize, u"FailInitialize", kBool, kGuru, false, false,
     u"The next initialisation fails"},
    {Key::TimeSourceStatus, u"TimeSourceStatus", kInt, kGuru, false, false,
     u"Status the time source reports"},
};
const Feature kStatistics[] = {
    {Key::FramesDelivered, u"FramesDelivered", kInt, kExpert, true, false,
     u"Images handed over since the start"},
    {Key::FramesLost, u"FramesLost", kInt, kExpert, true, false,
     u"Frames lost for want of a free buffer"},
};

const Category kCategories[] = {
    {u"Image Format", kImageFormat, sizeof kImageFormat / sizeof kImageFormat[0]},
    {u"Acquisition", kAcquisition, sizeof kAcquisition / sizeof kAcquisition[0]},
    {u"Analog", kAnalog, sizeof kAnalog / sizeof kAnalog[0]},
    {u"Test", kTest, sizeof kTest / sizeof kTest[0]},
    {u"Statistics", kStatistics, sizeof kStatistics / sizeof kStatistics[0]},
};
constexpr int32_t kCategoryCount = sizeof kCategories / sizeof kCategories[0];

const Feature* Find(int32_t category, int32_t feature) {
    if (category < 0 || category >= kCategoryCount) return nullptr;
    if (feature < 0 || feature >= kCategories[category].count) return nullptr;
    return &kCategories[category].features[feature];
}

struct EnumEntry {
    const KChar* name;
    int64_t value;
};
const EnumEntry kBinningEntries[] = {{u"1", 1}, {u"2", 2}, {u"4", 4}};
const EnumEntry kGainAutoEntries[] = {{u"Off", 0}, {u"Continuous", 2}};
const EnumEntry kExposureAutoEntries[] = {{u"Off", 0}, {u"Once", 1}, {u"Continuous", 2}};

int32_t EnumCount(Key key) {
    switch (key) {
        case Key::PixelFormat:
            return static_cast<int32_t>(PixelFormatCount());
        case Key::Binning:
            return 3;
        case Key::TriggerMode:
            return static_cast<int32_t>(kTriggerModeCount);
        case Key::TestPattern:
            return static_cast<int32_t>(kTestPatternCount);
        case Key::GainAuto:
            return 2;
        case Key::ExposureAuto:
            return 3;
        default:
            return 0;
    }
}

EnumEntry EnumAt(Key key, int32_t index) {
    switch (key) {
        case Key::PixelFormat:
            return {PixelFormatAt(static_cast<size_t>(index)).name, index};
        case Key::Binning:
            return kBinningEntries[index];
        case Key::TriggerMode:
            return {kTriggerModeNames[index], index};
        case Key::TestPattern:
            return {kTestPatternNames[index], index};
        case Key::GainAuto:
            return kGainAutoEntries[index];
        default:
            return kExposureAutoEntries[index];
    }
}

void IntegerRange(Key key, const SimulatedConfig& config, int64_t& min, int64_t& max) {
    min = 0;
    switch (key) {
        case Key::Width:
            min = Limits::kMinWidth;
            max = Limits::kSensorWidth / config.binning - config.offsetX;
            break;
        case Key::Height:
            min = Limits::kMinHeight;
            max = Limits::kSensorHeight / config.binning - config.offsetY;
            break;
        case Key::OffsetX:
            max = Limits::kSensorWidth / config.binning - config.width;
            break;
        case Key::OffsetY:
            max = Limits::kSensorHeight / config.binning - config.height;
            break;
        case Key::SensorWidth:
            min = max = Limits::kSensorWidth;
            break;
        case Key::SensorHeight:
            min = max = Limits::kSensorHeight;
            break;
        case Key::ExposureTime:
            min = Limits::kMinExposureUs;
            max = Limits::kMaxExposureUs;
            break;
        case Key::BlackLevel:
            max = Limits::kMaxBlackLevel;
            break;
        case Key::TimeSourceStatus:
            max = UINT32_MAX;
            break;
        case Key::FailAfterFrames:
        case Key::NullWaitEvery:
            max = INT32_MAX;
            break;
        default:
            max = INT64_MAX;
            break;
    }
}

}  // namespace

KStatus SimulatedCamera::GetCategoriesCount(int32_t* count) {
    if (count == nullptr) return kKPointer;
    *count = kCategoryCount;
    return kKOk;
}

KStatus SimulatedCamera::GetCategoriesCap(int32_t index, int32_t* id, KAbiChar* name,
                                          uint32_t capacity) {
    if (index < 0 || index >= kCategoryCount) return kKInvalidArgument;
    if (id != nullptr) *id = (index + 1) * 100;
    KCopyName(name, capacity, kCategories[index].name);
    return kKOk;
}

KStatus SimulatedCamera::GetFeatureCount(int32_t category, int32_t* count) {
    if (count == nullptr) return kKPointer;
    if (category < 0 || category >= kCategoryCount) return kKInvalidArgument;
    *count = kCategories[category].count;
    return kKOk;
}

KStatus SimulatedCamera::GetFeatureCap(int32_t category, int32_t index, int32_t* id, KAbiChar* name,
                                       uint32_t capacity, int32_t* type, int32_t* level) {
    const Feature* feature = Find(category, index);
    if (feature == nullptr) return kKInvalidArgument;
    if (id != nullptr) *id = (category + 1) * 100 + index + 1;
    KCopyName(name, capacity, feature->name);
    if (type != nullptr) *type = feature->type;
    if (level != nullptr) *level = feature->level;
    return kKOk;
}

KStatus SimulatedCamera::Accessible(int32_t category, int32_t index, int32_t* accessible) {
    if (accessible == nullptr) return kKPointer;
    const Feature* feature = Find(category, index);
    if (feature == nullptr) return kKInvalidArgument;
    // 1: may be written now. Read-only features never, geometry not while streaming.
    *accessible = !feature->readOnly && !(feature->geometry && IsStreaming()) ? 1 : 0;
    return kKOk;
}

KStatus SimulatedCamera::GetEnumFeatureValueCount(int32_t category, int32_t index, int32_t* count) {
    if (count == nullptr) return kKPointer;
    const Feature* feature = Find(category, index);
    if (feature == nullptr || feature->type != kEnum) return kKInvalidArgument;
    *count = EnumCount(feature->key);
    return kKOk;
}

KStatus SimulatedCamera::GetEnumFeatureValueCap(int32_t category, int32_t index, int32_t entry,
                                                KAbiChar* name, uint32_t capacity, int64_t* value) {
    const Feature* feature = Find(category, index);
    if (feature == nullptr || feature->type != kEnum) return kKInvalidArgument;
    if (entry < 0 || entry >= EnumCount(feature->key)) return kKInvalidArgument;
    const EnumEntry found = EnumAt(feature->key, entry);
    KCopyName(name, capacity, found.name);
    if (value != nullptr) *value = found.value;
    return kKOk;
}

KStatus SimulatedCamera::GetEnumFeatureValue(int32_t category, int32_t index, int64_t* value) {
    if (value == nullptr) return kKPointer;
    const Feature* feature = Find(category, index);
    if (feature == nullptr || feature->type != kEnum) return kKInvalidArgument;
    const SimulatedConfig config = Config();
    switch (feature->key) {
        case Key::PixelFormat:
            *value = config.pixelFormat;
            break;
        case Key::Binning:
            *value = config.binning;
            break;
        case Key::TriggerMode:
            *value = static_cast<int64_t>(config.triggerMode);
            break;
        case Key::TestPattern:
            *value = static_cast<int64_t>(config.testPattern);
            break;
        case Key::GainAuto:
            *value = config.gainAuto ? 2 : 0;
            break;
        default:
            *value = config.exposureAuto ? 2 : 0;
            break;
    }
    return kKOk;
}

KStatus SimulatedCamera::SetEnumFeatureValue(int32_t category, int32_t index, int64_t value) {
    const Feature* feature = Find(category, index);
    if (feature == nullptr || feature->type != kEnum) return kKInvalidArgument;
    bool known = false;
    for (int32_t i = 0; i < EnumCount(feature->key); ++i)
        known |= EnumAt(feature->key, i).value == value;
    if (!known) return kKInvalidArgument;
    switch (feature->key) {
        case Key::Binning:
            return SetBinning(static_cast<uint32_t>(value));
        case Key::GainAuto:
            return SetAutomatic(1, value != 0);
        case Key::ExposureAuto:
            return value == 1 ? OneShot(0) : SetAutomatic(0, value != 0);
        default:
            break;
    }
    return Change(
        [&](SimulatedConfig& config) {
            if (feature->key == Key::PixelFormat) config.pixelFormat = static_cast<uint32_t>(value);
            if (feature->key == Key::TriggerMode)
                config.triggerMode = static_cast<TriggerMode>(value);
            if (feature->key == Key::TestPattern)
                config.testPattern = static_cast<TestPattern>(value);
            return true;
        },
        feature->geometry);
}

KStatus SimulatedCamera::GetIntegerFeatureCap(int32_t category, int32_t index, int64_t* min,
                                              int64_t* max) {
    const Feature* feature = Find(category, index);
    if (feature == nullptr || feature->type != kInt) return kKInvalidArgument;
    int64_t low = 0, high = 0;
    IntegerRange(feature->key, Config(), low, high);
    if (min != nullptr) *min = low;
    if (max != nullptr) *max = high;
    return kKOk;
}

KStatus SimulatedCamera::GetIntegerFeatureValue(int32_t category, int32_t index, int64_t* value) {
    if (value == nullptr) return kKPointer;
    const Feature* feature = Find(category, index);
    if (feature == nullptr || feature->type != kInt) return kKInvalidArgument;
    const SimulatedConfig config = Config();
    switch (feature->key) {
        case Key::Width:
            *value = config.width;
            break;
        case Key::Height:
            *value = config.height;
            break;
        case Key::OffsetX:
            *value = config.offsetX;
            break;
        case Key::OffsetY:
            *value = config.offsetY;
            break;
        case Key::SensorWidth:
            *value = Limits::kSensorWidth;
            break;
        case Key::SensorHeight:
            *value = Limits::kSensorHeight;
            break;
        case Key::ExposureTime:
            *value = config.exposureUs;
            break;
        case Key::BlackLevel:
            *value = config.blackLevel;
            break;
        case Key::FailAfterFrames:
            *value = config.failAfterFrames;
            break;
        case Key::NullWaitEvery:
            *value = config.nullWaitEvery;
            break;
        case Key::MemoryLimit:
            *value = static_cast<int64_t>(config.memoryLimit);
            break;
        case Key::TimeSourceStatus:
            *value = config.timeSourceStatus;
            break;
        case Key::FramesDelivered:
            *value = static_cast<int64_t>(stream_.Statistics().delivered);
            break;
        default:
            *value = static_cast<int64_t>(stream_.Statistics().lost);
            break;
    }
    return kKOk;
}

KStatus SimulatedCamera::SetIntegerFeatureValue(int32_t category, int32_t index, int64_t value) {
    const Feature* feature = Find(category, index);
    if (feature == nullptr || feature->type != kInt) return kKInvalidArgument;
    if (feature->readOnly) return kKFail;
    int64_t min = 0, max = 0;
    IntegerRange(feature->key, Config(), min, max);
    if (value < min || value > max) return kKInvalidArgument;
    const uint32_t v32 = static_cast<uint32_t>(value);
    switch (feature->key) {
        case Key::ExposureTime:
            return SetIntegerValue(0, value);
        case Key::BlackLevel:
            return SetIntegerValue(2, value);
        default:
            break;
    }
    return Change(
        [&](SimulatedConfig& config) {
            switch (feature->key) {
                case Key::Width:
                    config.width = v32;
                    break;
                case Key::Height:
                    config.height = v32;
                    break;
                case Key::OffsetX:
                    config.offsetX = v32;
                    break;
                case Key::OffsetY:
                    config.offsetY = v32;
                    break;
                case Key::FailAfterFrames:
                    config.failAfterFrames = v32;
                    break;
                case Key::NullWaitEvery:
                    config.nullWaitEvery = v32;
                    break;
                case Key::MemoryLimit:
                    config.memoryLimit = static_cast<uint64_t>(value);
                    break;
                case Key::TimeSourceStatus:
                    config.timeSourceStatus = v32;
                    break;
                default:
                    return false;
            }
            return IsValidGeometry(config.width, config.height, config.offsetX, config.offsetY,
                                   config.binning);
        },
        feature->geometry);
}

KStatus SimulatedCamera::GetDoubleFeatureCap(int32_t category, int32_t index, double* min,
                                             double* max) {
    const Feature* feature = Find(category, index);
    if (feature == nullptr || feature->type != kDouble) return kKInvalidArgument;
    const bool rate = feature->key == Key::FrameRate;
    if (min != nullptr) *min = rate ? Limits::kMinFrameRate : 0.0;
    if (max != nullptr) *max = rate ? Limits::kMaxFrameRate : Limits::kMaxGainDb;
    return kKOk;
}

KStatus SimulatedCamera::GetDoubleFeatureValue(int32_t category, int32_t index, double* value) {
    const Feature* feature = Find(category, index);
    if (feature == nullptr || feature->type != kDouble) return kKInvalidArgument;
    return GetDoubleValue(feature->key == Key::FrameRate ? 3 : 1, value);
}

KStatus SimulatedCamera::SetDoubleFeatureValue(int32_t category, int32_t index, double value) {
    const Feature* feature = Find(category, index);
    if (feature == nullptr || feature->type != kDouble) return kKInvalidArgument;
    return SetDoubleValue(feature->key == Key::FrameRate ? 3 : 1, value);
}

KStatus SimulatedCamera::GetFeatureDescription(int32_t category, int32_t index, KAbiChar* text,
                                               uint32_t capacity) {
    const Feature* feature = Find(category, index);
    if (feature == nullptr) return kKInvalidArgument;
    KCopyName(text, capacity, feature->description);
    return kKOk;
}

KStatus SimulatedCamera::GetBoolFeatureValue(int32_t category, int32_t index, int32_t* value) {
    if (value == nullptr) return kKPointer;
    const Feature* feature = Find(category, index);
    if (feature == nullptr || feature->type != kBool) return kKInvalidArgument;
    const SimulatedConfig config = Config();
    *value = feature->key == Key::FreeRun ? config.freeRun : config.failInitialize;
    return kKOk;
}

KStatus SimulatedCamera::SetBoolFeatureValue(int32_t category, int32_t index, int32_t value) {
    const Feature* feature = Find(category, index);
    if (feature == nullptr || feature->type != kBool) return kKInvalidArgument;
    return Change([&](SimulatedConfig& config) {
        (feature->key == Key::FreeRun ? config.freeRun : config.failInitialize) = value != 0;
        return true;
    });
}

KStatus SimulatedCamera::ExecuteCommandFeature(int32_t category, int32_t index) {
    const Feature* feature = Find(category, index);
    if (feature == nullptr || feature->type != kCommand) return kKInvalidArgument;
    if (Config().triggerMode != TriggerMode::Software || !IsStreaming()) return kKFail;
    stream_.SoftwareTrigger();
    return kKOk;
}

}  // namespace kestor::simulated
