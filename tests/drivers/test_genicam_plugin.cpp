// The GenICam driver loaded the way the grab module loads it: the grabber manager plugin
// initialises the driver plugin by name with a settings key.
#include <gtest/gtest.h>

#include "KGrab.h"
#include "genicam/GenICamCamera.h"
#include "platform/PluginCatalog.h"
#include "platform/Registry.h"
#include "test_genicam_support.h"

namespace kestor::genicam::test {
namespace {

// Creates the manager from the plugins of this build and initialises "GenICam".
KStatus LoadThroughManager(KComPtr<IKGrabberManager>& manager, std::string& error) {
    PluginCatalog::Instance().Rescan();
    std::string why;
    const KStatus created = PluginCatalog::Instance().CreateInstance(
        CLSID_KGrabberManager, IID_IKGrabberManager, manager.Out(), &why);
    if (KFailed(created)) {
        error = "no grabber manager: " + why;
        return created;
    }
    KAbiChar text[kKMaxNameLength] = {};
    const WideString driver = u"GenICam";
    const KStatus status = manager->Initialize(driver.c_str(), kSettingsKey, text, kKMaxNameLength);
    error = WideToUtf8(text);
    return status;
}

bool PluginInstalled() {
    PluginCatalog::Instance().Rescan();
    PluginClassInfo info;
    return PluginCatalog::Instance().FindByName(kKPluginGrabberDriver, "GenICam", info) &&
           info.clsid == CLSID_KGenICamCamera;
}

using GenICamPlugin = FakeCameraTest;

TEST_F(GenICamPlugin, LoadsThroughTheManagerGrabsAndUnloads) {
    if (!PluginInstalled()) GTEST_SKIP() << "kestor-genicam.so is not in KESTOR_DRIVER_PATH";
    KComPtr<IKGrabberManager> manager;
    std::string error;
    ASSERT_EQ(LoadThroughManager(manager, error), kKOk) << error;
    auto grabber = KComPtr<IKGrabber>::Query(manager.Get(), IID_IKGrabber);
    auto format = KComPtr<IKImageFormat>::Query(manager.Get(), IID_IKImageFormat);
    ASSERT_TRUE(grabber);
    ASSERT_TRUE(format);
    // The interfaces the module looks for; no time source without a PTP clock.
    EXPECT_TRUE(KComPtr<IKBufferStatistics>::Query(manager.Get(), IID_IKBufferStatistics));
    EXPECT_TRUE(
        KComPtr<IKNotificationRegistration>::Query(manager.Get(), IID_IKNotificationRegistration));
    EXPECT_TRUE(KComPtr<IKFrameInfo>::Query(manager.Get(), IID_IKFrameInfo));
    EXPECT_TRUE(KComPtr<IKAdvancedFeatures>::Query(manager.Get(), IID_IKAdvancedFeatures));
    EXPECT_FALSE(KComPtr<IKTimeSource>::Query(manager.Get(), IID_IKTimeSource));
    EXPECT_FALSE(KComPtr<IKSerialPort>::Query(manager.Get(), IID_IKSerialPort));

    KAbiChar name[kKMaxNameLength] = {};
    ASSERT_EQ(grabber->GetName(name, kKMaxNameLength), kKOk);
    EXPECT_NE(WideToUtf8(name).find("Aravis"), std::string::npos) << WideToUtf8(name);

    uint32_t width = 0, height = 0, left = 9, top = 9, bits = 0, imageFormat = 0;
    ASSERT_EQ(format->GetImageSize(&width, &height, &left, &top), kKOk);
    ASSERT_EQ(format->GetBitDepth(&bits), kKOk);
    ASSERT_EQ(format->GetImageFormat(&imageFormat), kKOk);
    EXPECT_EQ(width, 512u);  // the fake camera's defaults
    EXPECT_EQ(height, 512u);
    EXPECT_EQ(left, 0u);
    EXPECT_EQ(top, 0u);
    EXPECT_EQ(bits, 8u);
    EXPECT_EQ(imageFormat, static_cast<uint32_t>(eKFormatMono));

    ASSERT_EQ(grabber->SetBufferCount(4), kKOk);
    uint32_t count = 0;
    ASSERT_EQ(grabber->GetBufferCount(&count), kKOk);
    EXPECT_EQ(count, 4u);
    int frames = 0;
    const StreamResult run = StreamImages(
        grabber.Get(), [&](void*) { return ++frames < 5; }, 20);
    EXPECT_GE(run.images, 5u);
    EXPECT_FALSE(run.queueFailed);
    uint64_t delivered = 0;
    ASSERT_EQ(grabber->GetDeliveredFrames(&delivered), kKOk);
    EXPECT_GE(delivered, 5u);
    grabber.Reset();
    format.Reset();
    manager.Reset();  // unloads the driver and closes the connection

    // The camera is free again for a second load.
    ASSERT_EQ(LoadThroughManager(manager, error), kKOk) << error;
}

TEST_F(GenICamPlugin, SettingsGetDefaultsAndBadConfigurationsFailWithAText) {
    {
        auto* camera = new GenICamCamera();
        KAbiChar error[kKMaxNameLength] = {};
        ASSERT_EQ(camera->Initialize(kSettingsKey, error, kKMaxNameLength), kKOk);
        camera->Release();
        // The missing values were written with their defaults.
        RegistryKey key;
        ASSERT_EQ(RegistryKey::Open(WideString(kSettingsKey) + u"GenICam", key), RegStatus::Ok);
        uint32_t value = 0;
        EXPECT_EQ(key.QueryDword(u"PacketResend", value), RegStatus::Ok);
        EXPECT_EQ(value, 1u);
        EXPECT_EQ(key.QueryDword(u"BufferTimeoutMs", value), RegStatus::Ok);
        EXPECT_EQ(value, 200u);
        EXPECT_EQ(key.QueryDword(u"PacketSize", value), RegStatus::Ok);
        EXPECT_EQ(value, 0u);
    }
    // No camera configured.
    settings_.reset();
    settings_.emplace("");
    auto* camera = new GenICamCamera();
    KAbiChar error[kKMaxNameLength] = {};
    EXPECT_LT(camera->Initialize(kSettingsKey, error, kKMaxNameLength), 0);
    EXPECT_NE(WideToUtf8(error).find("Camera"), std::string::npos) << WideToUtf8(error);
    camera->Release();

    // Nothing answers at the address: the camera was switched off.
    camera_.Kill();
    settings_.reset();
    settings_.emplace(kLoopback);
    camera = new GenICamCamera();
    EXPECT_LT(camera->Initialize(kSettingsKey, error, kKMaxNameLength), 0);
    EXPECT_EQ(WideToUtf8(error), "No camera answers at 127.0.0.1");
    // A driver that failed to initialise refuses to stream.
    EXPECT_LT(camera->SetBufferCount(2), 0);
    EXPECT_LT(camera->Start(), 0);
    camera->Release();
}

}  // namespace
}  // namespace kestor::genicam::test
