#include "simulated/SimulatedSettingsStore.h"

#include <charconv>
#include <cstdio>
#include <cstring>

#include "simulated/PixelFormats.h"

namespace kestor::simulated {
namespace {

// Reads `name` as a DWORD within [min, max]; false (value untouched) otherwise.
bool ReadDword(const RegistryKey& key, const KChar* name, uint32_t min, uint32_t max,
               uint32_t& value) {
    uint32_t read = 0;
    if (key.QueryDword(name, read) != RegStatus::Ok || read < min || read > max) return false;
    value = read;
    return true;
}

bool ReadBool(const RegistryKey& key, const KChar* name, bool& value) {
    uint32_t read = 0;
    if (!ReadDword(key, name, 0, 1, read)) return false;
    value = read != 0;
    return true;
}

bool ReadDouble(const RegistryKey& key, const KChar* name, double min, double max, double& value) {
    WideString text;
    if (key.QueryString(name, text) != RegStatus::Ok || text.size() > 64) return false;
    const std::string utf8 = WideToUtf8(text);
    double read = 0;
    const auto [end, error] = std::from_chars(utf8.data(), utf8.data() + utf8.size(), read);
    if (error != std::errc() || end != utf8.data() + utf8.size()) return false;
    if (!(read >= min && read <= max)) return false;  // also refuses NaN
    value = read;
    return true;
}

bool ReadQword(const RegistryKey& key, const KChar* name, uint64_t& value) {
    RegType type = RegType::None;
    std::vector<uint8_t> data;
    if (key.QueryValue(name, type, data) != RegStatus::Ok) return false;
    if (type == RegType::Dword && data.size() == 4) {
        uint32_t read = 0;
        std::memcpy(&read, data.data(), 4);
        value = read;
        return true;
    }
    if (type == RegType::Qword && data.size() == 8) {
        std::memcpy(&value, data.data(), 8);
        return true;
    }
    return false;
}

// Index of the name stored under `name` within `names`.
bool ReadChoice(const RegistryKey& key, const KChar* name, const KChar* const* names,
                uint32_t count, uint32_t& index) {
    WideString text;
    if (key.QueryString(name, text) != RegStatus::Ok) return false;
    for (uint32_t i = 0; i < count; ++i) {
        if (text == names[i]) {
            index = i;
            return true;
        }
    }
    return false;
}

WideString DoubleText(double value) {
    char text[64];
    const auto result = std::to_chars(text, text + sizeof text, value);
    return Utf8ToWide(std::string_view(text, static_cast<size_t>(result.ptr - text)));
}

}  // namespace

WideString SimulatedSettingsStore::KeyPath(const KChar* settingsKey) {
    WideString path = settingsKey != nullptr ? WideString(settingsKey) : WideString();
    if (!path.empty() && path.back() != u'\\') path += u'\\';
    return path + kDriverName;
}

RegStatus SimulatedSettingsStore::Load(const WideString& path, SimulatedConfig& config) {
    path_ = path;
    RegistryKey key;
    const RegStatus status = RegistryKey::Create(path_, key);
    if (status != RegStatus::Ok) return status;

    SimulatedConfig loaded;  // every value starts at its default
    ReadDword(key, u"Binning", 1, 4, loaded.binning);
    if (!IsValidBinning(loaded.binning)) loaded.binning = 1;
    // The region is taken whole or not at all: its values only make sense together.
    uint32_t width = 0, height = 0, x = 0, y = 0;
    if (ReadDword(key, u"Width", 0, Limits::kSensorWidth, width) &&
        ReadDword(key, u"Height", 0, Limits::kSensorHeight, height) &&
        ReadDword(key, u"OffsetX", 0, Limits::kSensorWidth, x) &&
        ReadDword(key, u"OffsetY", 0, Limits::kSensorHeight, y) &&
        IsValidGeometry(width, height, x, y, loaded.binning)) {
        loaded.width = width;
        loaded.height = height;
        loaded.offsetX = x;
        loaded.offsetY = y;
    } else {
        loaded.binning = 1;  // the default region fits the unbinned sensor
    }
    WideString formatName;
    if (key.QueryString(u"PixelFormat", formatName) == RegStatus::Ok) {
        const int32_t index = FindPixelFormat(formatName.c_str());
        if (index >= 0) loaded.pixelFormat = static_cast<uint32_t>(index);
    }
    uint32_t choice = 0;
    if (ReadChoice(key, u"TriggerMode", kTriggerModeNames, kTriggerModeCount, choice)) {
        loaded.triggerMode = static_cast<TriggerMode>(choice);
    }
    if (ReadChoice(key, u"TestPattern", kTestPatternNames, kTestPatternCount, choice)) {
        loaded.testPattern = static_cast<TestPattern>(choice);
    }
    ReadDouble(key, u"FrameRate", Limits::kMinFrameRate, Limits::kMaxFrameRate, loaded.frameRate);
    ReadBool(key, u"FreeRun", loaded.freeRun);
    ReadDword(key, u"Exposure", Limits::kMinExposureUs, Limits::kMaxExposureUs, loaded.exposureUs);
    ReadBool(key, u"ExposureAuto", loaded.exposureAuto);
    ReadDouble(key, u"Gain", 0.0, Limits::kMaxGainDb, loaded.gainDb);
    ReadBool(key, u"GainAuto", loaded.gainAuto);
    ReadDword(key, u"BlackLevel", 0, Limits::kMaxBlackLevel, loaded.blackLevel);
    ReadQword(key, u"MemoryLimit", loaded.memoryLimit);
    ReadBool(key, u"FailInitialize", loaded.failInitialize);
    ReadDword(key, u"FailAfterFrames", 0, UINT32_MAX, loaded.failAfterFrames);
    ReadDword(key, u"NullWaitEvery", 0, UINT32_MAX, loaded.nullWaitEvery);
    ReadDword(key, u"TimeSourceStatus", 0, UINT32_MAX, loaded.timeSourceStatus);
    ReadDword(key, u"DigitalOutputs", 0, 3, loaded.digitalOutputs);
    ReadBool(key, u"VideoOutput", loaded.videoOutput);

    config = loaded;
    // Writing everything back fills in what was missing and repairs what was unusable.
    return Save(config);
}

RegStatus SimulatedSettingsStore::Save(const SimulatedConfig& config) const {
    if (path_.empty()) return RegStatus::InvalidArgument;  // never the root of the store
    RegistryKey key;
    RegStatus status = RegistryKey::Create(path_, key);
    if (status != RegStatus::Ok) return status;
    auto keep = [&status](RegStatus result) {
        if (status == RegStatus::Ok) status = result;
    };
    keep(key.SetDword(u"Width", config.width));
    keep(key.SetDword(u"Height", config.height));
    keep(key.SetDword(u"OffsetX", config.offsetX));
    keep(key.SetDword(u"OffsetY", config.offsetY));
    keep(key.SetDword(u"Binning", config.binning));
    keep(key.SetString(u"PixelFormat", PixelFormatAt(config.pixelFormat).name));
    keep(key.SetString(u"TriggerMode", TriggerModeName(config.triggerMode)));
    keep(key.SetString(u"TestPattern", TestPatternName(config.testPattern)));
    keep(key.SetString(u"FrameRate", DoubleText(config.frameRate)));
    keep(key.SetDword(u"FreeRun", config.freeRun ? 1 : 0));
    keep(key.SetDword(u"Exposure", config.exposureUs));
    keep(key.SetDword(u"ExposureAuto", config.exposureAuto ? 1 : 0));
    keep(key.SetString(u"Gain", DoubleText(config.gainDb)));
    keep(key.SetDword(u"GainAuto", config.gainAuto ? 1 : 0));
    keep(key.SetDword(u"BlackLevel", config.blackLevel));
    const uint64_t limit = config.memoryLimit;
    keep(key.SetValue(u"MemoryLimit", RegType::Qword, &limit, sizeof limit));
    keep(key.SetDword(u"FailInitialize", config.failInitialize ? 1 : 0));
    keep(key.SetDword(u"FailAfterFrames", config.failAfterFrames));
    keep(key.SetDword(u"NullWaitEvery", config.nullWaitEvery));
    keep(key.SetDword(u"TimeSourceStatus", config.timeSourceStatus));
    keep(key.SetDword(u"DigitalOutputs", config.digitalOutputs));
    keep(key.SetDword(u"VideoOutput", config.videoOutput ? 1 : 0));
    return status;
}

uint32_t SimulatedSettingsStore::ReadTimeSourceStatus(uint32_t fallback) const {
    RegistryKey key;
    uint32_t value = fallback;
    if (!path_.empty() && RegistryKey::Open(path_, key) == RegStatus::Ok) {
        ReadDword(key, u"TimeSourceStatus", 0, UINT32_MAX, value);
    }
    return value;
}

}  // namespace kestor::simulated
