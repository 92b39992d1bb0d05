// The grab module with the real plugins of this build: the grabber manager and the simulated
// camera (skipped until that driver is built).
#include "GrabTestSupport.h"
#include "RecordingCallbacks.h"
#include "platform/PluginCatalog.h"

using namespace kestor;
using namespace kestor::test;

TEST_F(GrabModuleTest, SimulatedCameraStreams200Frames) {
    FakeGrabber::Uninstall();  // the real manager, found on the plugin path
    PluginCatalog::Instance().Rescan();
    if (!PluginCatalog::Instance().IsClassAvailable(CLSID_KGrabberManager) ||
        !PluginCatalog::Instance().IsClassAvailable(CLSID_KSimulatedCamera)) {
        GTEST_SKIP() << "the simulated camera plugin is not installed";
    }
    KGrabModule& module = Module();
    ASSERT_TRUE(module.Load(eKModuleSimulatedCamera, u"KestorTest", true, nullptr, false))
        << module.GetLastError();
    EXPECT_EQ(module.GetCurrentGrabber(), eKModuleSimulatedCamera);
    ASSERT_GT(module.GetImageSizeBytes(), 0u);

    RecordingCallbacks callbacks;
    const unsigned width = module.GetImageWidth(), height = module.GetImageHeight();
    ASSERT_TRUE(module.SetCallbacks(&callbacks, 1, nullptr));
    ASSERT_TRUE(module.StartStreaming());
    ASSERT_TRUE(callbacks.WaitFor("ImageReleased", 200));
    ASSERT_TRUE(module.StopStreaming());

    const std::vector<ReceivedImage> images = callbacks.Images();
    ASSERT_GE(images.size(), 200u);
    for (size_t i = 0; i < images.size(); ++i) {
        EXPECT_EQ(images[i].description.width, width);
        EXPECT_EQ(images[i].description.height, height);
        // Device frame numbers, when the driver gives them, only grow.
        if (i > 0 && !images[i].metadata.empty() && !images[i - 1].metadata.empty()) {
            EXPECT_GT(images[i].frameCounter, images[i - 1].frameCounter);
        }
    }
    EXPECT_TRUE(module.Unload());
}
