// Geometry, named settings, adjustments and advanced features of the GenICam driver against
// the fake camera.
#include <gtest/gtest.h>

#include "KGrab.h"
#include "test_genicam_support.h"

namespace kestor::genicam::test {
namespace {

using GenICamFeatures = GenICamCameraTest;

TEST_F(GenICamFeatures, RegionOfInterestAndBinningAreCheckedAppliedAndStreamed) {
    ASSERT_EQ(camera->SetImageSize(256, 128, 64, 32), kKOk);
    uint32_t w = 0, h = 0, x = 0, y = 0, bytes = 0, binning = 0;
    // Past the sensor (2048 wide) or empty: refused, the region stays as it was.
    EXPECT_LT(camera->SetImageSize(2048, 128, 64, 32), 0);
    EXPECT_LT(camera->SetImageSize(0, 128, 0, 0), 0);
    ASSERT_EQ(camera->GetImageSize(&w, &h, &x, &y), kKOk);
    EXPECT_EQ(std::vector<uint32_t>({w, h, x, y}), std::vector<uint32_t>({256, 128, 64, 32}));
    ASSERT_EQ(camera->GetImageSizeBytes(&bytes), kKOk);
    EXPECT_EQ(bytes, 256u * 128u);

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
            EXPECT_LT(camera->SetImageSize(256, 256, 0, 0), 0);  // fixed while streaming
            checked = true;
            return false;
        },
        20);
    EXPECT_TRUE(checked);

    ASSERT_EQ(camera->SetBinning(2), kKOk);
    EXPECT_LT(camera->SetBinning(0), 0);
    EXPECT_LT(camera->SetBinning(1000), 0);
    ASSERT_EQ(camera->GetBinning(&binning), kKOk);
    EXPECT_EQ(binning, 2u);
}

TEST_F(GenICamFeatures, NamedSettingsAreTheEnumerations) {
    for (const char* name :
         {"TriggerMode", "TriggerSource", "PixelFormat", "GainAuto", "AcquisitionMode"}) {
        EXPECT_GE(SettingIndex(camera, name), 0) << name;
    }
    const int32_t source = SettingIndex(camera, "TriggerSource");
    const int32_t software = ValueIndex(camera, source, "Software");
    ASSERT_GE(software, 0);
    int32_t values = 0, further = 0, entryValue = -1, current = -1, count = 0;
    KAbiChar name[kKMaxNameLength] = {};
    ASSERT_EQ(camera->GetValuesCount(source, &values), kKOk);
    ASSERT_EQ(camera->GetSettingsCaps(source, name, kKMaxNameLength, &further), kKOk);
    EXPECT_EQ(further, values);  // the further value is the number of values
    ASSERT_EQ(camera->GetValuesCaps(source, software, name, kKMaxNameLength, &entryValue), kKOk);
    EXPECT_EQ(entryValue, 1);  // the GenICam value of "Software" in the fake camera
    ASSERT_EQ(camera->SetCurrentValues(source, software), kKOk);
    ASSERT_EQ(camera->GetCurrentValues(source, &current), kKOk);
    EXPECT_EQ(current, software);
    EXPECT_LT(camera->SetCurrentValues(source, values), 0);
    EXPECT_LT(camera->SetCurrentValues(-1, 0), 0);
    ASSERT_EQ(camera->GetSettingsCount(&count), kKOk);
    EXPECT_LT(camera->GetValuesCount(count, &values), 0);
}

TEST_F(GenICamFeatures, AdjustmentsWithAutomaticAndOneShotModes) {
    const int32_t gain = AdjustmentIndex(camera, "GainRaw");
    const int32_t exposure = AdjustmentIndex(camera, "ExposureTimeAbs");
    const int32_t frameRate = AdjustmentIndex(camera, "AcquisitionFrameRate");
    ASSERT_GE(gain, 0);
    ASSERT_GE(exposure, 0);
    ASSERT_GE(frameRate, 0);
    int32_t id = -1, f[5] = {}, automatic = -1, count = 0;
    int64_t imin = 0, imax = 0, gainValue = 0;
    double dmin = 0, dmax = 0, value = 0;
    KAbiChar name[kKMaxNameLength] = {};
    const auto caps = [&](int32_t index) {
        return camera->GetCaps(index, &id, name, kKMaxNameLength, &imin, &imax, &dmin, &dmax, &f[0],
                               &f[1], &f[2], &f[3], &f[4]);
    };
    // Integer; GainAuto has "Continuous" and "Once".
    ASSERT_EQ(caps(gain), kKOk);
    EXPECT_EQ(id, gain);
    EXPECT_EQ(std::vector<int32_t>(f, f + 5), std::vector<int32_t>({1, 1, 0, 1, 0}));
    EXPECT_LT(imin, imax);
    ASSERT_EQ(camera->SetIntegerValue(gain, 2), kKOk);
    ASSERT_EQ(camera->GetIntegerValue(gain, &gainValue), kKOk);
    EXPECT_EQ(gainValue, 2);
    EXPECT_LT(camera->SetIntegerValue(gain, imax + 1), 0);
    for (int32_t mode : {1, 0}) {
        ASSERT_EQ(camera->SetAutomatic(gain, mode), kKOk);
        ASSERT_EQ(camera->GetAutomatic(gain, &automatic), kKOk);
        EXPECT_EQ(automatic, mode);
    }
    EXPECT_EQ(camera->OneShot(gain), kKOk);

    // Double, and the fake camera has no ExposureAuto.
    ASSERT_EQ(caps(exposure), kKOk);
    EXPECT_EQ(std::vector<int32_t>(f, f + 4), std::vector<int32_t>({0, 0, 1, 0}));
    EXPECT_LT(camera->OneShot(exposure), 0);
    EXPECT_LT(camera->SetAutomatic(exposure, 1), 0);
    ASSERT_EQ(camera->SetDoubleValue(exposure, 20000.0), kKOk);
    ASSERT_EQ(camera->GetDoubleValue(exposure, &value), kKOk);
    EXPECT_DOUBLE_EQ(value, 20000.0);
    ASSERT_EQ(camera->SetDoubleValue(frameRate, 100.0), kKOk);
    ASSERT_EQ(camera->GetDoubleValue(frameRate, &value), kKOk);
    EXPECT_NEAR(value, 100.0, 0.01);
    ASSERT_EQ(camera->GetCount(&count), kKOk);
    EXPECT_LT(camera->GetDoubleValue(count, &value), 0);
}

TEST_F(GenICamFeatures, AdvancedFeaturesFollowTheCategoryTree) {
    const int32_t imageFormat = CategoryIndex(camera, "ImageFormatControl");
    const int32_t acquisition = CategoryIndex(camera, "AcquisitionControl");
    const int32_t transport = CategoryIndex(camera, "TransportLayerControl");
    ASSERT_GE(imageFormat, 0);
    ASSERT_GE(acquisition, 0);
    ASSERT_GE(transport, 0);
    EXPECT_LT(CategoryIndex(camera, "DeviceControl"), 0);  // strings only: nothing to show

    int32_t id = -1, type = -1, level = -1, accessible = -1;
    KAbiChar name[kKMaxNameLength] = {};
    const auto typeOf = [&](int32_t category, int32_t feature) {
        EXPECT_EQ(
            camera->GetFeatureCap(category, feature, &id, name, kKMaxNameLength, &type, &level),
            kKOk);
        return type;
    };
    const int32_t width = FeatureIndex(camera, imageFormat, "Width");
    ASSERT_GE(width, 0);
    EXPECT_EQ(typeOf(imageFormat, width), eAdvanceSettingsInteger);
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

    const int32_t payload = FeatureIndex(camera, transport, "PayloadSize");
    ASSERT_GE(payload, 0);
    ASSERT_EQ(camera->Accessible(transport, payload, &accessible), kKOk);
    EXPECT_EQ(accessible, 0);  // computed by the camera: read only

    const int32_t pixelFormat = FeatureIndex(camera, imageFormat, "PixelFormat");
    ASSERT_GE(pixelFormat, 0);
    EXPECT_EQ(typeOf(imageFormat, pixelFormat), eAdvanceSettingsEnumeration);
    int32_t entries = 0;
    ASSERT_EQ(camera->GetEnumFeatureValueCount(imageFormat, pixelFormat, &entries), kKOk);
    int64_t mono16 = -1, entryValue = 0;
    for (int32_t i = 0; i < entries; ++i) {
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

    const int32_t exposure = FeatureIndex(camera, acquisition, "ExposureTimeAbs");
    ASSERT_GE(exposure, 0);
    EXPECT_EQ(typeOf(acquisition, exposure), eAdvanceSettingsDouble);
    double dmin = 0, dmax = 0, dvalue = 0;
    ASSERT_EQ(camera->GetDoubleFeatureCap(acquisition, exposure, &dmin, &dmax), kKOk);
    EXPECT_LE(dmin, 10000.0);  // the default exposure lies within the bounds
    EXPECT_GE(dmax, 10000.0);
    ASSERT_EQ(camera->SetDoubleFeatureValue(acquisition, exposure, 15000.0), kKOk);
    ASSERT_EQ(camera->GetDoubleFeatureValue(acquisition, exposure, &dvalue), kKOk);
    EXPECT_DOUBLE_EQ(dvalue, 15000.0);

    const int32_t trigger = FeatureIndex(camera, acquisition, "TriggerSoftware");
    ASSERT_GE(trigger, 0);
    EXPECT_EQ(typeOf(acquisition, trigger), eAdvanceSettingsCommand);
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
    // The driver holds the control channel, which a second connection cannot have.
    camera->Release();
    camera = nullptr;
    CameraConnection connection;
    std::string error;
    ASSERT_TRUE(connection.Open(kLoopback, error)) << error;
    FeatureTree tree;
    tree.Build(connection.Genicam());
    EXPECT_EQ(tree.Lookup("NoSuchFeature"), -1);
    const int32_t id = tree.Lookup("TestBoolean");
    ASSERT_GE(id, 0);
    const Feature& feature = tree.Get(id);
    EXPECT_EQ(feature.kind, FeatureKind::Bool);
    for (bool wanted : {false, true}) {
        bool value = !wanted;
        ASSERT_EQ(SetBoolValue(feature, wanted), kKOk);
        ASSERT_EQ(GetBoolValue(feature, value), kKOk);
        EXPECT_EQ(value, wanted);
    }
}

}  // namespace
}  // namespace kestor::genicam::test
