// The GenICam driver loaded the way the grab module loads it: the grabber manager plugin
// initialises the driver plugin by name with a settings key.
#include <gtest/gtest.h>

#include "KGrab.h"
#include "platform/PluginCatalog.h"
#include "platform/Registry.h"
#include "test_genicam_support.h"

namespace kestor::genicam::test {
namespace {

KStatus LoadThroughManager(KComPtr<IKGrabberManager>& manager, std::string& error) {
    PluginCatalog::Instance().Rescan();
    const KStatus created = PluginCatalog::Instance().CreateInstance(
        CLSID_KGrabberManager, IID_IKGrabberManager, manager.Out(), &error);
    if (KFailed(created)) return created;
    KAbiChar text[kKMaxNameLength] = {};
    const KStatus status = manager->Initialize(u"GenICam", kSettingsKey, text, kKMaxNameLength);
    error = WideToUtf8(text);
    return status;
}

using GenICamPlugin = FakeCameraTest;

TEST_F(GenICamPlugin, LoadsThroughTheManagerGrabsAndUnloads) {
    PluginCatalog::Instance().Rescan();
    PluginClassInfo info;
    if (!PluginCatalog::Instance().FindByName(kKPluginGrabberDriver, "GenICam", info)) {
        GTEST_SKIP() << "kestor-genicam.so is not in KESTOR_DRIVER_PATH";
    }
    EXPECT_TRUE(info.clsid == CLSID_KGenICamCamera);
    KComPtr<IKGrabberManager> manager;
    std::string error;
    ASSERT_EQ(LoadThroughManager(manager, error), kKOk) << error;
    auto grabber = KComPtr<IKGrabber>::Query(manager.Get(), IID_IKGrabber);
    auto format = KComPtr<IKImageFormat>::Query(manager.Get(), IID_IKImageFormat);
    ASSERT_TRUE(grabber);
    ASSERT_TRUE(format);
    // The interfaces the module looks for; no time source without a PTP clock.
    for (const KGuid& iid : {IID_IKBufferStatistics, IID_IKNotificationRegistration,
                             IID_IKFrameInfo, IID_IKAdvancedFeatures}) {
        EXPECT_TRUE(KComPtr<IKUnknown>::Query(manager.Get(), iid));
    }
    EXPECT_FALSE(KComPtr<IKUnknown>::Query(manager.Get(), IID_IKTimeSource));
    EXPECT_FALSE(KComPtr<IKUnknown>::Query(manager.Get(), IID_IKSerialPort));

    KAbiChar name[kKMaxNameLength] = {};
    ASSERT_EQ(grabber->GetName(name, kKMaxNameLength), kKOk);
    EXPECT_NE(WideToUtf8(name).find("Aravis"), std::string::npos) << WideToUtf8(name);
    uint32_t width = 0, height = 0, left = 9, top = 9, bits = 0, imageFormat = 0;
    ASSERT_EQ(format->GetImageSize(&width, &height, &left, &top), kKOk);
    ASSERT_EQ(format->GetBitDepth(&bits), kKOk);
    ASSERT_EQ(format->GetImageFormat(&imageFormat), kKOk);
    // The fake camera's defaults.
    EXPECT_EQ(std::vector<uint32_t>({width, height, left, top, bits, imageFormat}),
              std::vector<uint32_t>({512, 512, 0, 0, 8, eKFormatMono}));

    ASSERT_EQ(grabber->SetBufferCount(4), kKOk);
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
    KAbiChar error[kKMaxNameLength] = {};
    auto camera = KComPtr<GenICamCamera>::Adopt(new GenICamCamera());
    ASSERT_EQ(camera->Initialize(kSettingsKey, error, kKMaxNameLength), kKOk);
    camera.Reset();
    // The missing values were written with their defaults.
    RegistryKey key;
    ASSERT_EQ(RegistryKey::Open(WideString(kSettingsKey) + u"GenICam", key), RegStatus::Ok);
    uint32_t resend = 9, timeout = 9, packet = 9;
    EXPECT_EQ(key.QueryDword(u"PacketResend", resend), RegStatus::Ok);
    EXPECT_EQ(key.QueryDword(u"BufferTimeoutMs", timeout), RegStatus::Ok);
    EXPECT_EQ(key.QueryDword(u"PacketSize", packet), RegStatus::Ok);
    EXPECT_EQ(std::vector<uint32_t>({resend, timeout, packet}), std::vector<uint32_t>({1, 200, 0}));

    // No camera configured.
    settings_.reset();
    settings_.emplace("");
    camera = KComPtr<GenICamCamera>::Adopt(new GenICamCamera());
    EXPECT_LT(camera->Initialize(kSettingsKey, error, kKMaxNameLength), 0);
    EXPECT_NE(WideToUtf8(error).find("Camera"), std::string::npos) << WideToUtf8(error);

    // Nothing answers at the address: the camera was switched off.
    camera_.Kill();
    settings_.reset();
    settings_.emplace(kLoopback);
    camera = KComPtr<GenICamCamera>::Adopt(new GenICamCamera());
    EXPECT_LT(camera->Initialize(kSettingsKey, error, kKMaxNameLength), 0);
    EXPECT_EQ(WideToUtf8(error), "No camera answers at 127.0.0.1");
    // A driver that failed to initialise refuses to stream.
    EXPECT_LT(camera->SetBufferCount(2), 0);
    EXPECT_LT(camera->Start(), 0);
}

}  // namespace
}  // namespace kestor::genicam::test
