// Feeds arbitrary registry values to the simulated camera's settings: whatever the store holds,
// initialisation must end with a usable configuration (every value in range, the region on the
// sensor), write back what a second camera reads the same way, and the camera must then size
// its buffers within the memory limit and deliver an intact first frame.
#include <stdlib.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "KTestPattern.h"
#include "platform/RegistryDatabase.h"
#include "simulated/PixelFormats.h"
#include "simulated/SimulatedCamera.h"
#include "support/FuzzedRegistryValues.h"
#include "support/TempDir.h"

namespace {

using kestor::RegistryKey;
using kestor::RegStatus;
using kestor::simulated::Limits;
using kestor::simulated::SimulatedCamera;
using kestor::simulated::SimulatedConfig;

constexpr const char16_t* kSettingsKey = u"Software\\Fuzz\\Grabdesk\\";
constexpr const char16_t* const kValueNames[] = {
    u"Width",          u"Height",          u"OffsetX",       u"OffsetY",
    u"Binning",        u"PixelFormat",     u"TriggerMode",   u"TestPattern",
    u"FrameRate",      u"FreeRun",         u"Exposure",      u"ExposureAuto",
    u"Gain",           u"GainAuto",        u"BlackLevel",    u"MemoryLimit",
    u"FailInitialize", u"FailAfterFrames", u"NullWaitEvery", u"TimeSourceStatus",
    u"DigitalOutputs", u"VideoOutput"};
constexpr size_t kMaxValues = 32;
// The buffers of one run may take this much at most, whatever the store allows: a fuzzed
// geometry or limit must not make the target allocate without bound.
constexpr uint64_t kMemoryBound = 8u * 1024 * 1024;
constexpr uint32_t kBufferCount = 2;

void Check(bool condition) {
    if (!condition) std::abort();
}

const kestor::test::TempDir& Folder() {
    static const kestor::test::TempDir folder(std::filesystem::temp_directory_path().string());
    return folder;
}

void CheckUsable(const SimulatedConfig& config) {
    Check(kestor::simulated::IsValidGeometry(config.width, config.height, config.offsetX,
                                             config.offsetY, config.binning));
    Check(config.pixelFormat < kestor::simulated::PixelFormatCount());
    Check(static_cast<uint32_t>(config.triggerMode) < kestor::simulated::kTriggerModeCount);
    Check(static_cast<uint32_t>(config.testPattern) < kestor::simulated::kTestPatternCount);
    Check(config.frameRate >= Limits::kMinFrameRate && config.frameRate <= Limits::kMaxFrameRate);
    Check(config.exposureUs >= Limits::kMinExposureUs &&
          config.exposureUs <= Limits::kMaxExposureUs);
    Check(config.gainDb >= 0.0 && config.gainDb <= Limits::kMaxGainDb);
    Check(config.blackLevel <= Limits::kMaxBlackLevel);
    Check(config.digitalOutputs <= 3);
}

bool Same(const SimulatedConfig& a, const SimulatedConfig& b) {
    return a.width == b.width && a.height == b.height && a.offsetX == b.offsetX &&
           a.offsetY == b.offsetY && a.binning == b.binning && a.pixelFormat == b.pixelFormat &&
           a.triggerMode == b.triggerMode && a.testPattern == b.testPattern &&
           a.frameRate == b.frameRate && a.freeRun == b.freeRun && a.exposureUs == b.exposureUs &&
           a.exposureAuto == b.exposureAuto && a.gainDb == b.gainDb && a.gainAuto == b.gainAuto &&
           a.blackLevel == b.blackLevel && a.memoryLimit == b.memoryLimit &&
           a.failInitialize == b.failInitialize && a.failAfterFrames == b.failAfterFrames &&
           a.nullWaitEvery == b.nullWaitEvery && a.timeSourceStatus == b.timeSourceStatus &&
           a.digitalOutputs == b.digitalOutputs && a.videoOutput == b.videoOutput;
}

// Initialises a camera on the scratch key; its status must say whether it was told to fail.
KComPtr<SimulatedCamera> Initialized() {
    auto camera = KComPtr<SimulatedCamera>::Adopt(new SimulatedCamera());
    KAbiChar error[kKMaxNameLength];
    const KStatus status = camera->Initialize(kSettingsKey, error, kKMaxNameLength);
    Check(std::char_traits<KAbiChar>::length(error) < kKMaxNameLength);
    Check((status == kKOk) == !camera->Config().failInitialize);
    return camera;
}

// Reads every advanced feature the way a settings window would; returns the index pair of the
// software trigger command.
void ReadFeatures(SimulatedCamera& camera, int32_t& triggerCategory, int32_t& triggerFeature) {
    int32_t categories = 0;
    camera.GetCategoriesCount(&categories);
    for (int32_t category = 0; category < categories; ++category) {
        int32_t features = 0;
        camera.GetFeatureCount(category, &features);
        for (int32_t feature = 0; feature < features; ++feature) {
            KAbiChar name[kKMaxNameLength];
            int32_t id = 0, type = 0, level = 0;
            if (camera.GetFeatureCap(category, feature, &id, name, kKMaxNameLength, &type,
                                     &level) != kKOk) {
                continue;
            }
            if (std::u16string_view(name) == u"TriggerSoftware") {
                triggerCategory = category;
                triggerFeature = feature;
            }
            int64_t integer = 0;
            double real = 0;
            int32_t flag = 0;
            camera.GetIntegerFeatureValue(category, feature, &integer);
            camera.GetDoubleFeatureValue(category, feature, &real);
            camera.GetEnumFeatureValue(category, feature, &integer);
            camera.GetBoolFeatureValue(category, feature, &flag);
        }
    }
}

// One frame through the whole protocol, as the grab module's two threads would take it.
void GrabOneFrame(SimulatedCamera& camera, int32_t triggerCategory, int32_t triggerFeature) {
    const SimulatedConfig config = camera.Config();
    if (camera.Start() != kKOk) return;
    if (config.triggerMode == kestor::simulated::TriggerMode::Software) {
        Check(camera.ExecuteCommandFeature(triggerCategory, triggerFeature) == kKOk);
    }
    // The first frame is due at once and a buffer is free, so it comes without waiting.
    Check(camera.QueueGrab() == kKOk);
    void* pixels = nullptr;
    // An injected fault may hold a ready image back for one wait, never longer.
    for (int attempt = 0; attempt < 2 && pixels == nullptr; ++attempt) camera.WaitImage(&pixels);
    Check(pixels != nullptr);
    if (config.testPattern == kestor::simulated::TestPattern::Moving) {
        uint64_t number = 1;
        Check(KTestPatternVerify(static_cast<const uint8_t*>(pixels),
                                 kestor::simulated::DescribeImage(config), &number));
        Check(number == 0);
    }
    uint32_t status = 0;
    camera.GetSyncStatus(&status);
    camera.ReleaseImage();
    camera.Stop();
    camera.CancelQueuedGrabs();
    camera.FreeQueue();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    setenv("KESTOR_REGISTRY", Folder().File("registry.db").c_str(), 1);
    RegistryKey::DeleteTree(u"Software\\Fuzz");
    kestor::test::FuzzedInput input(data, size);
    const auto values = kestor::test::DecodeRegistryValues(input, kValueNames, kMaxValues);
    if (!values.empty()) {
        RegistryKey key;
        Check(RegistryKey::Create(kestor::simulated::SimulatedSettingsStore::KeyPath(kSettingsKey),
                                  key) == RegStatus::Ok);
        kestor::test::WriteRegistryValues(key, values);
    }
    {
        auto camera = Initialized();
        const SimulatedConfig config = camera->Config();
        CheckUsable(config);
        // What the first camera wrote back reads the same way again.
        Check(Same(Initialized()->Config(), config));

        uint32_t width = 0, height = 0, left = 0, top = 0, bytes = 0, bits = 0, format = 0;
        camera->GetImageSize(&width, &height, &left, &top);
        camera->GetImageSizeBytes(&bytes);
        camera->GetBitDepth(&bits);
        camera->GetImageFormat(&format);
        int32_t triggerCategory = -1, triggerFeature = -1;
        ReadFeatures(*camera.Get(), triggerCategory, triggerFeature);

        Check(camera->Change([](SimulatedConfig& bounded) {
            if (bounded.memoryLimit == 0 || bounded.memoryLimit > kMemoryBound)
                bounded.memoryLimit = kMemoryBound;
            return true;
        }) == kKOk);
        const uint64_t limit = camera->Config().memoryLimit;
        const uint64_t needed = kBufferCount * kestor::simulated::SimulatedStream::SlotBytes(bytes);
        const KStatus buffers = camera->SetBufferCount(kBufferCount);
        Check(buffers == (needed <= limit ? kKOk : kKOutOfMemory));
        if (buffers == kKOk) GrabOneFrame(*camera.Get(), triggerCategory, triggerFeature);
    }
    kestor::RegistryDatabase::CloseUnused();
    return 0;
}
