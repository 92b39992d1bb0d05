// The simulated camera as the grab module meets it: the real plugin, found by the plugin
// catalogue and initialised through the grabber manager.
#include "platform/PluginCatalog.h"
#include "simulated_test_support.h"

namespace kestor::simulated::testing {
namespace {

// CTest may hand the test only KESTOR_TEST_HELPERS (the build's tests folder); the plugins
// of the same build are then in ../lib/kestor beside it.
class SimulatedPlugin : public SimulatedCameraTest {
protected:
    void SetUp() override {
        SimulatedCameraTest::SetUp();
        const char* helpers = getenv("KESTOR_TEST_HELPERS");
        if (getenv("KESTOR_DRIVER_PATH") == nullptr && helpers != nullptr) {
            setenv("KESTOR_DRIVER_PATH", (std::string(helpers) + "/../lib/kestor").c_str(), 1);
            PluginCatalog::Instance().Rescan();
        }
        ASSERT_EQ(PluginCatalog::Instance().CreateInstance(CLSID_KGrabberManager,
                                                           IID_IKGrabberManager, manager.Out()),
                  kKOk);
    }
    KComPtr<IKGrabberManager> manager;
};

TEST_F(SimulatedPlugin, LoadsThroughTheManagerAndGrabsFrames) {
    PluginClassInfo found;
    ASSERT_TRUE(
        PluginCatalog::Instance().FindByName(kKPluginGrabberDriver, "Simulated Camera", found));
    EXPECT_TRUE(found.clsid == CLSID_KSimulatedCamera);
    EXPECT_NE(found.path.find("kestor-simulated"), std::string::npos);  // the plugin, not us
    KAbiChar error[kKMaxNameLength] = {};
    ASSERT_EQ(manager->Initialize(u"Simulated Camera", kSettingsKey, error, kKMaxNameLength), kKOk)
        << WideToUtf8(error);
    auto grabber = KComPtr<IKGrabber>::Query(manager.Get(), IID_IKGrabber);
    auto format = KComPtr<IKImageFormat>::Query(manager.Get(), IID_IKImageFormat);
    ASSERT_TRUE(grabber);
    ASSERT_TRUE(format);
    for (const KGuid& iid :
         {IID_IKBinning, IID_IKBufferStatistics, IID_IKNotificationRegistration, IID_IKQuery,
          IID_IKSettings, IID_IKAdjustments, IID_IKAdvancedFeatures, IID_IKSerialPort,
          IID_IKTimeSource, IID_IKFrameInfo, IID_IKDigitalIO, IID_IKVideoOutput}) {
        EXPECT_TRUE(KComPtr<IKUnknown>::Query(manager.Get(), iid));
    }
    EXPECT_FALSE(KComPtr<IKUnknown>::Query(manager.Get(), IID_IKIntegerAdjustments));
    KAbiChar name[kKMaxNameLength];
    ASSERT_EQ(grabber->GetName(name, kKMaxNameLength), kKOk);
    EXPECT_EQ(std::u16string(name), u"Simulated Camera");

    ASSERT_EQ(format->SetImageSize(256, 128, 0, 0), kKOk);
    KImageDescription description{};
    format->GetImageSize(&description.width, &description.height, nullptr, nullptr);
    format->GetBitDepth(&description.bitDepth);
    format->GetRealBitDepth(&description.bitDepthReal);
    format->GetImageSizeBytes(&description.sizeBytes);
    format->GetImageFormat(&description.format);
    ASSERT_EQ(grabber->SetBufferCount(3), kKOk);
    ASSERT_EQ(grabber->Start(), kKOk);
    for (uint64_t expected = 0; expected < 3; ++expected) {
        ASSERT_EQ(grabber->QueueGrab(), kKOk);
        void* pixels = nullptr;
        ASSERT_EQ(grabber->WaitImage(&pixels), kKOk);
        uint64_t number = 99;
        EXPECT_TRUE(KTestPatternVerify(static_cast<uint8_t*>(pixels), description, &number));
        EXPECT_EQ(number, expected);
        EXPECT_EQ(grabber->ReleaseImage(), kKOk);
    }
    grabber->Stop();
    grabber->CancelQueuedGrabs();
    grabber->FreeQueue();
}

// The camera's FailInitialize switch fails Initialize with a text that reaches the manager.
TEST_F(SimulatedPlugin, FailInitializeReachesTheManagerWithItsText) {
    {
        RegistryKey key;
        ASSERT_EQ(RegistryKey::Create(kCameraKey, key), RegStatus::Ok);
        key.SetDword(u"FailInitialize", 1);
    }
    KAbiChar error[kKMaxNameLength] = {};
    EXPECT_TRUE(
        KFailed(manager->Initialize(u"Simulated Camera", kSettingsKey, error, kKMaxNameLength)));
    EXPECT_NE(WideToUtf8(error).find("FailInitialize"), std::string::npos);
}

}  // namespace
}  // namespace kestor::simulated::testing
