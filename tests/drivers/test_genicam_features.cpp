// Geometry, named settings, adjustments and advanced features of the GenICam driver against
// the fake camera.
#include <gtest/gtest.h>

#include "KGrab.h"
#include "genicam/GenICamCamera.h"
#include "test_genicam_support.h"

namespace kestor::genicam::test {
namespace {

class GenICamFeatures : public FakeCameraTest {
protected:
    void SetUp() override {
        FakeCameraTest::SetUp();
        if (IsSkipped()) return;
        camera = new GenICamCamera();
        KAbiChar error[kKMaxNameLength] = {};
        ASSERT_EQ(camera->Initialize(kSettingsKey, error, kKMaxNameLength), kKOk)
            << WideToUtf8(error);
    }
    void TearDown() override {
        if (camera != nullptr) camera->Release();
        FakeCameraTest::TearDown();
    }

    int32_t Setting(const std::string& name) {
        int32_t count = 0;
        camera->GetSettingsCount(&count);
        return FindByName(
            count,
            [&](int32_t i, KAbiChar* text, uint32_t capacity) {
                return camera->GetSettingsCaps(i, text, capacity, nullptr) == kKOk;
            },
            name);
    }
    int32_t Value(int32_t setting, const std::string& name) {
        int32_t count = 0;
        camera->GetValuesCount(setting, &count);
        return FindByName(
            count,
            [&](int32_t i, KAbiChar* text, uint32_t capacity) {
                return camera->GetValuesCaps(setting, i, text, capacity, nullptr) == kKOk;
            },
            name);
    }
    int32_t Adjustment(const std::string& name) {
        int32_t count = 0;
        camera->GetCount(&count);
        return FindByName(
            count,
            [&](int32_t i, KAbiChar* text, uint32_t capacity) {
                return camera->GetCaps(i, nullptr, text, capacity, nullptr, nullptr, nullptr,
                                       nullptr, nullptr, nullptr, nullptr, nullptr,
                                       nullptr) == kKOk;
            },
            name);
    }
    int32_t Category(const std::string& name) {
        int32_t count = 0;
        camera->GetCategoriesCount(&count);
        return FindByName(
            count,
            [&](int32_t i, KAbiChar* text, uint32_t capacity) {
                return camera->GetCategoriesCap(i, nullptr, text, capacity) == kKOk;
            },
            name);
    }
    int32_t FeatureIn(int32_t category, const std::string& name) {
        int32_t count = 0;
        camera->GetFeatureCount(category, &count);
        return FindByName(
            count,
            [&](int32_t i, KAbiChar* text, uint32_t capacity) {
                return camera->GetFeatureCap(category, i, nullptr, text, capacity, nullptr,
                                             nullptr) == kKOk;
            },
            name);
    }

    GenICamCamera* camera = nullptr;
};

TEST_F(GenICamFeatures, RegionOfInterestIsCheckedAppliedAndStreamed) {
    ASSERT_EQ(camera->SetImageSize(256, 128, 64, 32), kKOk);
    uint32_t w = 0, h = 0, x = 0, y = 0, bytes = 0;
    ASSERT_EQ(camera->GetImageSize(&w, &h, &x, &y), kKOk);
    EXPECT_EQ(w, 256u);
    EXPECT_EQ(h, 128u);
    EXPECT_EQ(x, 64u);
    EXPECT_EQ(y, 32u);
    ASSERT_EQ(camera->GetImageSizeBytes(&bytes), kKOk);
    EXPECT_EQ(bytes, 256u * 128u);

    // Past the sensor (2048 wide) or empty: refused, the region stays as it was.
    EXPECT_LT(camera->SetImageSize(2048, 128, 64, 32), 0);
    EXPECT_LT(camera->SetImageSize(0, 128, 0, 0), 0);
    ASSERT_EQ(camera->GetImageSize(&w, &h, &x, &y), kKOk);
    EXPECT_EQ(w, 256u);
    EXPECT_EQ(x, 64u);

    // The next stream delivers frames of the new size (the buffers follow the payload).
    ASSERT_EQ(camera->SetBufferCount(3), kKOk);
    ASSERT_EQ(camera->SetImageSize(1024, 1024, 0, 0), kKOk);
    bool checked = false;
    StreamImages(
        camera,
        [&](void* pixels) {
            KGrabFrameInfo info{sizeof(KGrabFrameInfo), 0, 0, 0, 0, 0};
            camera->GetLastImageInfo(&info);
            const auto* p = static_cast<const uint8_t*>(pixels);
            EXPECT_EQ(p[1023 * 1024 + 1023], FakeMono8(1023, 1023, info.frameId));
            // Geometry is fixed while streaming.
            EXPECT_LT(camera->SetImageSize(256, 256, 0, 0), 0);
            checked = true;
            return false;
        },
        20);
    EXPECT_TRUE(checked);

    ASSERT_EQ(camera->SetBinning(2), kKOk);
    uint32_t binning = 0;
    ASSERT_EQ(camera->GetBinning(&binning), kKOk);
    EXPECT_EQ(binning, 2u);
    EXPECT_LT(camera->SetBinning(0), 0);
    EXPECT_LT(camera->SetBinning(1000), 0);
    ASSERT_EQ(camera->GetBinning(&binning), kKOk);
    EXPECT_EQ(binning, 2u);
}

TEST_F(GenICamFeatures, NamedSettingsAreTheEnumerations) {
    for (const char* name :
         {"TriggerMode", "TriggerSource", "PixelFormat", "GainAuto", "AcquisitionMode"}) {
        EXPECT_GE(Setting(name), 0) << name;
    }
    const int32_t triggerSource = Setting("TriggerSource");
    const int32_t software = Value(triggerSource, "Software");
    ASSERT_GE(software, 0);
    int32_t values = 0, further = 0, entryValue = -1;
    ASSERT_EQ(camera->GetValuesCount(triggerSource, &values), kKOk);
    KAbiChar name[kKMaxNameLength] = {};
    ASSERT_EQ(camera->GetSettingsCaps(triggerSource, name, kKMaxNameLength, &further), kKOk);
    EXPECT_EQ(further, values);  // the further value is the number of values
    ASSERT_EQ(camera->GetValuesCaps(triggerSource, software, name, kKMaxNameLength, &entryValue),
              kKOk);
    EXPECT_EQ(entryValue, 1);  // the GenICam value of "Software" in the fake camera
    ASSERT_EQ(camera->SetCurrentValues(triggerSource, software), kKOk);
    int32_t current = -1;
    ASSERT_EQ(camera->GetCurrentValues(triggerSource, &current), kKOk);
    EXPECT_EQ(current, software);
    EXPECT_LT(camera->SetCurrentValues(triggerSource, values), 0);
    EXPECT_LT(camera->SetCurrentValues(-1, 0), 0);
    int32_t count = 0;
    ASSERT_EQ(camera->GetSettingsCount(&count), kKOk);
    EXPECT_LT(camera->GetValuesCount(count, &values), 0);
}

TEST_F(GenICamFeatures, AdjustmentsWithAutomaticAndOneShotModes) {
    const int32_t gain = Adjustment("GainRaw");
    const int32_t exposure = Adjustment("ExposureTimeAbs");
    const int32_t frameRate = Adjustment("AcquisitionFrameRate");
    ASSERT_GE(gain, 0);
    ASSERT_GE(exposure, 0);
    ASSERT_GE(frameRate, 0);

    int32_t id = -1, f1 = 0, f2 = 0, f3 = 0, f4 = 0, f5 = 0;
    int64_t imin = 0, imax = 0;
    double dmin = 0, dmax = 0;
    KAbiChar name[kKMaxNameLength] = {};
    ASSERT_EQ(camera->GetCaps(gain, &id, name, kKMaxNameLength, &imin, &imax, &dmin, &dmax, &f1,
                              &f2, &f3, &f4, &f5),
              kKOk);
    EXPECT_EQ(id, gain);
    EXPECT_EQ(f1, 1);  // integer
    EXPECT_EQ(f2, 1);  // GainAuto has "Continuous"
    EXPECT_EQ(f3, 0);
    EXPECT_EQ(f4, 1);  // ... and "Once"
    EXPECT_EQ(f5, 0);
    EXPECT_LT(imin, imax);
    ASSERT_EQ(camera->SetIntegerValue(gain, 2), kKOk);
    int64_t gainValue = 0;
    ASSERT_EQ(camera->GetIntegerValue(gain, &gainValue), kKOk);
    EXPECT_EQ(gainValue, 2);
    EXPECT_LT(camera->SetIntegerValue(gain, imax + 1), 0);  // out of range is refused

    int32_t automatic = -1;
    ASSERT_EQ(camera->SetAutomatic(gain, 1), kKOk);
    ASSERT_EQ(camera->GetAutomatic(gain, &automatic), kKOk);
    EXPECT_EQ(automatic, 1);
    ASSERT_EQ(camera->SetAutomatic(gain, 0), kKOk);
    ASSERT_EQ(camera->GetAutomatic(gain, &automatic), kKOk);
    EXPECT_EQ(automatic, 0);
    EXPECT_EQ(camera->OneShot(gain), kKOk);

    ASSERT_EQ(camera->GetCaps(exposure, &id, name, kKMaxNameLength, &imin, &imax, &dmin, &dmax, &f1,
                              &f2, &f3, &f4, &f5),
              kKOk);
    EXPECT_EQ(f1, 0);
    EXPECT_EQ(f3, 1);  // double
    EXPECT_EQ(f2, 0);  // the fake camera has no ExposureAuto
    EXPECT_EQ(f4, 0);
    EXPECT_LT(camera->OneShot(exposure), 0);
    EXPECT_LT(camera->SetAutomatic(exposure, 1), 0);
    ASSERT_EQ(camera->SetDoubleValue(exposure, 20000.0), kKOk);
    double exposureValue = 0;
    ASSERT_EQ(camera->GetDoubleValue(exposure, &exposureValue), kKOk);
    EXPECT_DOUBLE_EQ(exposureValue, 20000.0);

    ASSERT_EQ(camera->SetDoubleValue(frameRate, 100.0), kKOk);
    double rate = 0;
    ASSERT_EQ(camera->GetDoubleValue(frameRate, &rate), kKOk);
    EXPECT_NEAR(rate, 100.0, 0.01);
    int32_t count = 0;
    ASSERT_EQ(camera->GetCount(&count), kKOk);
    EXPECT_LT(camera->GetDoubleValue(count, &rate), 0);
}

TEST_F(GenICamFeatures, AdvancedFeaturesFollowTheCategoryTree) {
    const int32_t imageFormat = Category("ImageFormatControl");
    const int32_t acquisition = Category("AcquisitionControl");
    const int32_t transport = Category("TransportLayerControl");
    ASSERT_GE(imageFormat, 0);
    ASSERT_GE(acquisition, 0);
    ASSERT_GE(transport, 0);
    EXPECT_LT(Category("DeviceControl"), 0);  // strings only: nothing the interface can show

    int32_t id = -1, type = -1, level = -1, accessible = -1;
    KAbiChar name[kKMaxNameLength] = {};
    const int32_t width = FeatureIn(imageFormat, "Width");
    ASSERT_GE(width, 0);
    ASSERT_EQ(camera->GetFeatureCap(imageFormat, width, &id, name, kKMaxNameLength, &type, &level),
              kKOk);
    EXPECT_EQ(type, eAdvanceSettingsInteger);
    EXPECT_EQ(level, eAdvanceSettingsBeginner);
    ASSERT_EQ(camera->Accessible(imageFormat, width, &accessible), kKOk);
    EXPECT_EQ(accessible, 1);
    int64_t min = 0, max = 0, value = 0;
    ASSERT_EQ(camera->GetIntegerFeatureCap(imageFormat, width, &min, &max), kKOk);
    EXPECT_EQ(min, 1);
    EXPECT_EQ(max, 2048);
    ASSERT_EQ(camera->SetIntegerFeatureValue(imageFormat, width, 640), kKOk);
    ASSERT_EQ(camera->GetIntegerFeatureValue(imageFormat, width, &value), kKOk);
    EXPECT_EQ(value, 640);
    EXPECT_LT(camera->SetIntegerFeatureValue(imageFormat, width, 4096), 0);

    const int32_t payload = FeatureIn(transport, "PayloadSize");
    ASSERT_GE(payload, 0);
    ASSERT_EQ(camera->Accessible(transport, payload, &accessible), kKOk);
    EXPECT_EQ(accessible, 0);  // computed by the camera: read only

    const int32_t pixelFormat = FeatureIn(imageFormat, "PixelFormat");
    ASSERT_GE(pixelFormat, 0);
    ASSERT_EQ(
        camera->GetFeatureCap(imageFormat, pixelFormat, &id, name, kKMaxNameLength, &type, &level),
        kKOk);
    EXPECT_EQ(type, eAdvanceSettingsEnumeration);
    int32_t entries = 0;
    ASSERT_EQ(camera->GetEnumFeatureValueCount(imageFormat, pixelFormat, &entries), kKOk);
    int64_t mono16 = -1;
    for (int32_t i = 0; i < entries; ++i) {
        int64_t entryValue = 0;
        ASSERT_EQ(camera->GetEnumFeatureValueCap(imageFormat, pixelFormat, i, name, kKMaxNameLength,
                                                 &entryValue),
                  kKOk);
        if (WideToUtf8(name) == "Mono16") mono16 = entryValue;
    }
    ASSERT_EQ(mono16, 0x01100007);
    ASSERT_EQ(camera->SetEnumFeatureValue(imageFormat, pixelFormat, mono16), kKOk);
    ASSERT_EQ(camera->GetEnumFeatureValue(imageFormat, pixelFormat, &value), kKOk);
    EXPECT_EQ(value, mono16);
    uint32_t bits = 0;
    ASSERT_EQ(camera->GetBitDepth(&bits), kKOk);
    EXPECT_EQ(bits, 16u);

    const int32_t exposure = FeatureIn(acquisition, "ExposureTimeAbs");
    ASSERT_GE(exposure, 0);
    ASSERT_EQ(
        camera->GetFeatureCap(acquisition, exposure, &id, name, kKMaxNameLength, &type, &level),
        kKOk);
    EXPECT_EQ(type, eAdvanceSettingsDouble);
    double dmin = 0, dmax = 0, dvalue = 0;
    ASSERT_EQ(camera->GetDoubleFeatureCap(acquisition, exposure, &dmin, &dmax), kKOk);
    EXPECT_LE(dmin, 10000.0);  // the default exposure lies within the bounds
    EXPECT_GE(dmax, 10000.0);
    ASSERT_EQ(camera->SetDoubleFeatureValue(acquisition, exposure, 15000.0), kKOk);
    ASSERT_EQ(camera->GetDoubleFeatureValue(acquisition, exposure, &dvalue), kKOk);
    EXPECT_DOUBLE_EQ(dvalue, 15000.0);

    const int32_t trigger = FeatureIn(acquisition, "TriggerSoftware");
    ASSERT_GE(trigger, 0);
    ASSERT_EQ(
        camera->GetFeatureCap(acquisition, trigger, &id, name, kKMaxNameLength, &type, &level),
        kKOk);
    EXPECT_EQ(type, eAdvanceSettingsCommand);
    EXPECT_EQ(camera->ExecuteCommandFeature(acquisition, trigger), kKOk);
    // Type mismatches and bad indexes are refused.
    EXPECT_LT(camera->ExecuteCommandFeature(imageFormat, width), 0);
    int32_t flag = 0;
    EXPECT_LT(camera->GetBoolFeatureValue(imageFormat, width, &flag), 0);
    EXPECT_LT(camera->GetIntegerFeatureValue(imageFormat, 1000, &value), 0);
}

// The fake camera lists its one boolean in no category; the feature table still serves it by
// name.
TEST_F(GenICamFeatures, BooleanFeaturesReadAndWrite) {
    CameraConnection connection;
    // The driver holds the control channel, which a second connection cannot have: it goes
    // first.
    camera->Release();
    camera = nullptr;
    std::string error;
    ASSERT_TRUE(connection.Open(kLoopback, error)) << error;
    FeatureTree tree;
    tree.Build(connection.Genicam());
    const int32_t id = tree.Lookup("TestBoolean");
    ASSERT_GE(id, 0);
    const Feature& feature = tree.Get(id);
    EXPECT_EQ(feature.kind, FeatureKind::Bool);
    bool value = true;
    ASSERT_EQ(SetBoolValue(feature, false), kKOk);
    ASSERT_EQ(GetBoolValue(feature, value), kKOk);
    EXPECT_FALSE(value);
    ASSERT_EQ(SetBoolValue(feature, true), kKOk);
    ASSERT_EQ(GetBoolValue(feature, value), kKOk);
    EXPECT_TRUE(value);
    EXPECT_EQ(tree.Lookup("NoSuchFeature"), -1);
}

}  // namespace
}  // namespace kestor::genicam::test
