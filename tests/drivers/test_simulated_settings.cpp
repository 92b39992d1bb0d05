// Settings of the simulated camera: persistence in the registry store, range checks of what
// is read back, and the interfaces that reach them (settings, adjustments, features, serial
// port, time source, digital lines, video output).
#include <cstring>
#include <string>

#include "KGrab.h"
#include "platform/Registry.h"
#include "simulated/PixelFormats.h"
#include "simulated_test_support.h"

namespace kestor::simulated::testing {
namespace {

using SimulatedSettings = SimulatedCameraTest;

uint32_t StoredDword(const KChar* name) {
    RegistryKey key;
    uint32_t value = 0xDEADBEEF;
    if (RegistryKey::Open(kCameraKey, key) == RegStatus::Ok) key.QueryDword(name, value);
    return value;
}

TEST_F(SimulatedSettings, DefaultsAreWrittenAndChangesSurviveIntoTheNextInstance) {
    {
        auto camera = MakeCamera();
        EXPECT_EQ(StoredDword(u"Width"), 1024u);  // created with the defaults
        EXPECT_EQ(StoredDword(u"FailAfterFrames"), 0u);
        ASSERT_EQ(camera->SetImageSize(512, 256, 32, 2), kKOk);
        ASSERT_EQ(camera->SetBinning(2), kKOk);
        ASSERT_EQ(camera->SetCurrentValues(1, FindPixelFormat(u"Mono 12 Packed")), kKOk);
        ASSERT_EQ(camera->SetCurrentValues(0, 2), kKOk);           // External trigger
        ASSERT_EQ(camera->SetIntegerValue(0, 1234), kKOk);         // Exposure
        ASSERT_EQ(camera->SetDoubleValue(1, 3.5), kKOk);           // Gain
        ASSERT_EQ(camera->SetDoubleValue(3, 250.5), kKOk);         // Frame Rate
        ASSERT_EQ(camera->SetIntegerFeatureValue(3, 0, 7), kKOk);  // Test / FailAfterFrames
        ASSERT_EQ(camera->SetLine(3, 1), kKOk);                    // Output 2
        ASSERT_EQ(camera->Enable(1), kKOk);
    }
    auto camera = MakeCamera();
    const SimulatedConfig config = camera->Config();
    EXPECT_EQ(std::vector<uint64_t>({config.width, config.height, config.offsetX, config.offsetY,
                                     config.binning, config.exposureUs, config.failAfterFrames,
                                     config.digitalOutputs}),
              std::vector<uint64_t>({256, 128, 16, 1, 2, 1234, 7, 2}));
    EXPECT_EQ(config.pixelFormat, static_cast<uint32_t>(FindPixelFormat(u"Mono 12 Packed")));
    EXPECT_EQ(config.triggerMode, TriggerMode::External);
    EXPECT_DOUBLE_EQ(config.gainDb, 3.5);
    EXPECT_DOUBLE_EQ(config.frameRate, 250.5);
    EXPECT_TRUE(config.videoOutput);
}

TEST_F(SimulatedSettings, CorruptValuesFallBackToDefaults) {
    {
        RegistryKey key;
        ASSERT_EQ(RegistryKey::Create(kCameraKey, key), RegStatus::Ok);
        key.SetDword(u"Width", 0xFFFFFFFF);  // would be an absurd allocation
        key.SetDword(u"Height", 100);
        key.SetString(u"Binning", u"two");  // wrong type
        key.SetString(u"PixelFormat", u"Mono 99");
        key.SetString(u"FrameRate", u"nan");
        key.SetString(u"Gain", u"1e308");
        key.SetDword(u"Exposure", 0);
        key.SetString(u"TriggerMode", u"Sometimes");
        key.SetDword(u"FreeRun", 7);
        const uint8_t junk[3] = {1, 2, 3};
        key.SetValue(u"MemoryLimit", RegType::Binary, junk, sizeof junk);
    }
    auto camera = MakeCamera();
    const SimulatedConfig config = camera->Config();
    const SimulatedConfig defaults;
    // A geometry is taken whole or not at all.
    EXPECT_EQ(
        std::vector<uint64_t>({config.width, config.height, config.binning, config.pixelFormat,
                               config.exposureUs, config.memoryLimit}),
        std::vector<uint64_t>({defaults.width, defaults.height, 1, 0, defaults.exposureUs, 0}));
    EXPECT_DOUBLE_EQ(config.frameRate, defaults.frameRate);
    EXPECT_DOUBLE_EQ(config.gainDb, defaults.gainDb);
    EXPECT_EQ(config.triggerMode, TriggerMode::FreeRunning);
    EXPECT_FALSE(config.freeRun);
    EXPECT_EQ(StoredDword(u"Width"), defaults.width);  // and the store was repaired
}

TEST_F(SimulatedSettings, NamedSettingsListTheirValues) {
    auto camera = MakeCamera();
    int32_t count = 0, values = 0;
    ASSERT_EQ(camera->GetSettingsCount(&count), kKOk);
    ASSERT_GE(count, 3);
    KAbiChar name[kKMaxNameLength];
    ASSERT_EQ(camera->GetSettingsCaps(0, name, kKMaxNameLength, &values), kKOk);
    EXPECT_EQ(std::u16string(name), u"Trigger Mode");
    ASSERT_EQ(values, 3);
    const char16_t* expected[] = {u"Free Running", u"Software", u"External"};
    for (int32_t v = 0; v < 3; ++v) {
        ASSERT_EQ(camera->GetValuesCaps(0, v, name, kKMaxNameLength, nullptr), kKOk);
        EXPECT_EQ(std::u16string(name), expected[v]);
    }
    ASSERT_EQ(camera->GetValuesCount(1, &values), kKOk);
    EXPECT_EQ(values, static_cast<int32_t>(PixelFormatCount()));
    EXPECT_EQ(camera->GetValuesCaps(0, 3, name, kKMaxNameLength, nullptr), kKInvalidArgument);
    EXPECT_EQ(camera->SetCurrentValues(0, -1), kKInvalidArgument);
    EXPECT_EQ(camera->SetCurrentValues(count, 0), kKInvalidArgument);
    KAbiChar cut[4];
    ASSERT_EQ(camera->GetSettingsCaps(1, cut, 4, nullptr), kKOk);
    EXPECT_EQ(std::u16string(cut), u"Pix");  // cut and terminated
}

TEST_F(SimulatedSettings, AdjustmentsHaveTypesRangesAndAutomaticModes) {
    auto camera = MakeCamera();
    int32_t count = 0;
    ASSERT_EQ(camera->GetCount(&count), kKOk);
    ASSERT_EQ(count, 4);
    KAbiChar name[kKMaxNameLength];
    int32_t f[5] = {};
    const auto caps = [&](int32_t index) {
        return camera->GetCaps(index, nullptr, name, kKMaxNameLength, nullptr, nullptr, nullptr,
                               nullptr, &f[0], &f[1], &f[2], &f[3], &f[4]);
    };
    const struct {
        const char16_t* name;
        std::vector<int32_t> flags;  // integer, automatic, double, one-shot, reserved
    } expected[] = {{u"Exposure", {1, 1, 0, 1, 0}},
                    {u"Gain", {0, 1, 1, 0, 0}},
                    {u"Black Level", {1, 0, 0, 0, 0}},
                    {u"Frame Rate", {0, 0, 1, 0, 0}}};
    for (int32_t i = 0; i < 4; ++i) {
        ASSERT_EQ(caps(i), kKOk);
        EXPECT_EQ(std::u16string(name), expected[i].name);
        EXPECT_EQ(std::vector<int32_t>(f, f + 5), expected[i].flags) << i;
    }
    EXPECT_EQ(caps(4), kKInvalidArgument);

    EXPECT_EQ(camera->SetIntegerValue(0, 5), kKInvalidArgument);  // below 10 us
    EXPECT_EQ(camera->SetDoubleValue(1, 30.0), kKInvalidArgument);
    EXPECT_EQ(camera->SetIntegerValue(2, 256), kKInvalidArgument);
    EXPECT_EQ(camera->SetAutomatic(2, 1), kKInvalidArgument);  // black level has no auto
    EXPECT_EQ(camera->OneShot(1), kKInvalidArgument);          // gain has no one-shot

    ASSERT_EQ(camera->SetDoubleValue(3, 100.0), kKOk);
    ASSERT_EQ(camera->SetAutomatic(0, 1), kKOk);
    int32_t automatic = 0;
    camera->GetAutomatic(0, &automatic);
    EXPECT_EQ(automatic, 1);
    int64_t exposure = 0;
    camera->GetIntegerValue(0, &exposure);
    EXPECT_EQ(exposure, static_cast<int64_t>(AutoExposureUs(100.0)));
    ASSERT_EQ(camera->SetIntegerValue(0, 777), kKOk);  // a hand-set value ends auto
    camera->GetAutomatic(0, &automatic);
    EXPECT_EQ(automatic, 0);
    ASSERT_EQ(camera->OneShot(0), kKOk);
    camera->GetIntegerValue(0, &exposure);
    EXPECT_EQ(exposure, static_cast<int64_t>(AutoExposureUs(100.0)));
    camera->GetAutomatic(0, &automatic);
    EXPECT_EQ(automatic, 0);
    ASSERT_EQ(camera->SetAutomatic(1, 1), kKOk);
    double gain = 0;
    camera->GetDoubleValue(1, &gain);
    EXPECT_DOUBLE_EQ(gain, kAutoGainDb);
}

TEST_F(SimulatedSettings, AdvancedFeaturesHaveTypesAccessAndLevels) {
    auto camera = MakeCamera();
    int32_t categories = 0, id = 0, type = -1, level = -1, accessible = 1, entries = 0;
    ASSERT_EQ(camera->GetCategoriesCount(&categories), kKOk);
    ASSERT_GE(categories, 4);
    KAbiChar name[kKMaxNameLength];
    const char16_t* expected[] = {u"Image Format", u"Acquisition", u"Analog", u"Test"};
    for (int32_t c = 0; c < 4; ++c) {
        ASSERT_EQ(camera->GetCategoriesCap(c, &id, name, kKMaxNameLength), kKOk);
        EXPECT_EQ(std::u16string(name), expected[c]);
    }

    // Image Format / Width: integer, range follows the geometry.
    ASSERT_EQ(camera->GetFeatureCap(0, 0, &id, name, kKMaxNameLength, &type, &level), kKOk);
    EXPECT_EQ(std::u16string(name), u"Width");
    EXPECT_EQ(type, eAdvanceSettingsInteger);
    int64_t min = 0, max = 0, value = 0;
    ASSERT_EQ(camera->GetIntegerFeatureCap(0, 0, &min, &max), kKOk);
    EXPECT_EQ(min, 64);
    EXPECT_EQ(max, 4096);
    ASSERT_EQ(camera->SetIntegerFeatureValue(0, 0, 512), kKOk);
    EXPECT_TRUE(KFailed(camera->SetIntegerFeatureValue(0, 0, 500)));  // not aligned
    ASSERT_EQ(camera->GetIntegerFeatureValue(0, 0, &value), kKOk);
    EXPECT_EQ(value, 512);
    EXPECT_EQ(camera->Config().width, 512u);

    // Image Format / SensorWidth is read-only.
    ASSERT_EQ(camera->GetFeatureCap(0, 6, &id, name, kKMaxNameLength, &type, &level), kKOk);
    EXPECT_EQ(std::u16string(name), u"SensorWidth");
    ASSERT_EQ(camera->Accessible(0, 6, &accessible), kKOk);
    EXPECT_EQ(accessible, 0);
    EXPECT_TRUE(KFailed(camera->SetIntegerFeatureValue(0, 6, 4096)));

    // Image Format / PixelFormat: an enumeration whose values are its entries' numbers;
    // Binning's entries are the factors.
    ASSERT_EQ(camera->GetEnumFeatureValueCount(0, 4, &entries), kKOk);
    EXPECT_EQ(entries, static_cast<int32_t>(PixelFormatCount()));
    int64_t entryValue = -1;
    ASSERT_EQ(camera->GetEnumFeatureValueCap(0, 4, 5, name, kKMaxNameLength, &entryValue), kKOk);
    ASSERT_EQ(camera->SetEnumFeatureValue(0, 4, entryValue), kKOk);
    uint32_t format = 0, binning = 0;
    camera->GetImageFormat(&format);
    EXPECT_EQ(format, PixelFormatAt(static_cast<size_t>(entryValue)).format);
    EXPECT_EQ(camera->SetEnumFeatureValue(0, 4, 1000), kKInvalidArgument);
    ASSERT_EQ(camera->SetEnumFeatureValue(0, 5, 2), kKOk);
    camera->GetBinning(&binning);
    EXPECT_EQ(binning, 2u);

    // Acquisition: frame rate double, free run bool; Test is for experts only.
    ASSERT_EQ(camera->SetDoubleFeatureValue(1, 0, 42.0), kKOk);
    double rate = 0;
    ASSERT_EQ(camera->GetDoubleFeatureValue(1, 0, &rate), kKOk);
    EXPECT_DOUBLE_EQ(rate, 42.0);
    ASSERT_EQ(camera->SetBoolFeatureValue(1, 1, 1), kKOk);
    EXPECT_TRUE(camera->Config().freeRun);
    ASSERT_EQ(camera->GetFeatureCap(3, 0, &id, name, kKMaxNameLength, &type, &level), kKOk);
    EXPECT_EQ(level, eAdvanceSettingsGuru);
    // Type mismatches and bad indexes are refused.
    EXPECT_EQ(camera->GetDoubleFeatureValue(0, 0, &rate), kKInvalidArgument);
    EXPECT_EQ(camera->ExecuteCommandFeature(0, 0), kKInvalidArgument);
    EXPECT_EQ(camera->GetFeatureCount(categories, &entries), kKInvalidArgument);
    EXPECT_EQ(camera->GetFeatureDescription(0, 0, name, kKMaxNameLength), kKOk);
    EXPECT_GT(std::u16string(name).size(), 0u);
}

std::string Exchange(SimulatedCamera& camera, const std::string& text) {
    uint32_t count = static_cast<uint32_t>(text.size());
    EXPECT_EQ(camera.Transmit(text.data(), &count, 100), kKOk);
    char answer[256] = {};
    uint32_t room = sizeof answer - 1;
    camera.Receive(answer, &room, 100);
    return std::string(answer, room);
}

TEST_F(SimulatedSettings, SerialPortAnswersTextCommands) {
    auto camera = MakeCamera();
    ASSERT_EQ(camera->SetIntegerValue(0, 1000), kKOk);
    EXPECT_EQ(Exchange(*camera.Get(), "GET EXPOSURE\r"), "EXPOSURE=1000\r");
    EXPECT_EQ(Exchange(*camera.Get(), "SET GAIN 3.5\r"), "OK\r");
    EXPECT_DOUBLE_EQ(camera->Config().gainDb, 3.5);
    EXPECT_EQ(Exchange(*camera.Get(), "get gain\r"), "GAIN=3.5\r");
    for (const char* bad : {"SET GAIN 99\r", "SET GAIN abc\r", "HELLO\r"}) {
        EXPECT_EQ(Exchange(*camera.Get(), bad), "ERROR\r") << bad;
    }
    // A command split over two transmissions, two in one.
    EXPECT_EQ(Exchange(*camera.Get(), "GET WID"), "");
    EXPECT_EQ(Exchange(*camera.Get(), "TH\rGET HEIGHT\r"), "WIDTH=1024\rHEIGHT=768\r");
    char empty[8];
    uint32_t room = sizeof empty;
    EXPECT_EQ(camera->Receive(empty, &room, 10), kKTimeout);
    EXPECT_EQ(room, 0u);
    int32_t endChar = 0, textMode = 0;
    camera->GetEndChar(&endChar);
    camera->GetTextMode(&textMode);
    EXPECT_EQ(endChar, '\r');
    EXPECT_EQ(textMode, 1);
}

TEST_F(SimulatedSettings, TimeSourceFollowsTheStoreAndAnnouncesChanges) {
    auto camera = MakeCamera();
    CountingSink sink;
    camera->Register(&sink);
    uint32_t status = 0;
    ASSERT_EQ(camera->GetSyncStatus(&status), kKOk);
    EXPECT_EQ(status, kKTimeSourceDriverSynchronized);
    CGPSDataStruct gps{};
    ASSERT_EQ(camera->GetGPSData(&gps, 0), kKOk);
    EXPECT_EQ(gps.valid, 1);
    EXPECT_GT(gps.satellites, 0);
    EXPECT_NEAR(gps.latitude, 47.4, 1.0);
    EXPECT_GT(gps.utcSeconds, 1600000000);

    for (uint32_t value : {0xFFFFFFFFu, 3u, 77u}) {  // none, and values the module maps itself
        RegistryKey key;
        ASSERT_EQ(RegistryKey::Open(kCameraKey, key), RegStatus::Ok);
        key.SetDword(u"TimeSourceStatus", value);
        ASSERT_EQ(camera->GetSyncStatus(&status), kKOk);
        EXPECT_EQ(status, value);
    }
    EXPECT_EQ(sink.counts[eKNotificationTimeSourceChanged], 3);
    ASSERT_EQ(camera->SetIntegerFeatureValue(3, 4, kKTimeSourceDriverHoldover), kKOk);
    EXPECT_EQ(sink.counts[eKNotificationTimeSourceChanged], 4);
    camera->GetSyncStatus(&status);
    EXPECT_EQ(status, kKTimeSourceDriverHoldover);
    EXPECT_EQ(sink.counts[eKNotificationTimeSourceChanged], 4);  // no change, no news
    camera->Register(nullptr);
}

TEST_F(SimulatedSettings, DigitalOutputsLoopBackAndVideoOutputSwitches) {
    auto camera = MakeCamera();
    int32_t count = 0, output = 0, level = 1, enabled = 1;
    ASSERT_EQ(camera->GetLineCount(&count), kKOk);
    ASSERT_EQ(count, 4);
    camera->IsOutput(0, &output);
    EXPECT_EQ(output, 0);
    camera->IsOutput(2, &output);
    EXPECT_EQ(output, 1);
    ASSERT_EQ(camera->SetLine(2, 1), kKOk);  // Output 1 drives Input 1
    camera->GetLine(0, &level);
    EXPECT_EQ(level, 1);
    camera->GetLine(1, &level);
    EXPECT_EQ(level, 0);
    EXPECT_EQ(camera->SetLine(0, 1), kKInvalidArgument);  // inputs cannot be driven
    EXPECT_EQ(camera->SetLine(4, 1), kKInvalidArgument);
    camera->IsEnabled(&enabled);
    EXPECT_EQ(enabled, 0);
    camera->Enable(1);
    camera->IsEnabled(&enabled);
    EXPECT_EQ(enabled, 1);
}

}  // namespace
}  // namespace kestor::simulated::testing
