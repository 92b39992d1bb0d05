// Region of interest, binning, properties, buffer statistics, frame information, queries, the
// advanced-settings window and the I/O drivers: which codes come back when the grabber, an
// interface or the idle state is missing.
#include "GrabTestSupport.h"

using namespace kestor;
using namespace kestor::test;

namespace {
using Calls = std::vector<std::string>;
}

TEST_F(GrabModuleTest, RoiPassesSizeFirstAndRefreshesTheDescription) {
    ASSERT_TRUE(LoadFake());
    Fake().ClearCalls();
    ASSERT_TRUE(Module().SetROI(4, 6, 16, 8));
    EXPECT_EQ(Fake().CallsStartingWith("SetImageSize"), (Calls{"SetImageSize(16,8,4,6)"}));
    EXPECT_EQ(Module().GetImageWidth(), 16u);
    EXPECT_EQ(Module().GetImageHeight(), 8u);
    EXPECT_EQ(Module().GetImageSizeBytes(), 128u);

    unsigned x = 99, y = 99, w = 99, h = 99;
    ASSERT_TRUE(Module().GetROI(x, y, w, h));
    EXPECT_EQ((std::vector<unsigned>{x, y, w, h}), (std::vector<unsigned>{4, 6, 16, 8}));
}

TEST_F(GrabModuleTest, RoiIsRefusedWithoutGrabberFirstThenWhileStreaming) {
    FakeGrabber::Install({});
    unsigned x = 9, y = 9, w = 9, h = 9;
    EXPECT_FALSE(Module().GetROI(x, y, w, h));
    EXPECT_EQ((std::vector<unsigned>{x, y, w, h}), (std::vector<unsigned>{0, 0, 0, 0}));
    EXPECT_EQ(Module().GetLastError(), eKErrNoGrabberLoaded);
    EXPECT_GRAB_ERROR(Module().SetROI(0, 0, 8, 8), eKErrNoGrabberLoaded);

    FakeGrabberConfig config;
    config.frameLimit = 1;
    ASSERT_TRUE(LoadFake(config));
    ASSERT_TRUE(Module().StartStreaming());
    Fake().ClearCalls();
    EXPECT_GRAB_ERROR(Module().SetROI(0, 0, 8, 8), eKErrGrabberStreaming);
    EXPECT_GRAB_ERROR(Module().SetBinning(2), eKErrGrabberStreaming);
    EXPECT_TRUE(Fake().CallsStartingWith("SetImageSize").empty());
    EXPECT_TRUE(Fake().CallsStartingWith("SetBinning").empty());
    EXPECT_EQ(Module().GetImageWidth(), 64u);
    ASSERT_TRUE(Module().StopStreaming());
    EXPECT_TRUE(Module().SetROI(0, 0, 8, 8));
}

TEST_F(GrabModuleTest, BinningAndPropertiesRefreshTheDescription) {
    ASSERT_TRUE(LoadFake());
    int window = 0;
    ASSERT_TRUE(Module().ShowProperties(&window));
    EXPECT_TRUE(Fake().Called("ShowProperties(window,0)"));
    EXPECT_EQ(Module().GetImageWidth(), 32u);  // the fake's dialog narrows the image
    ASSERT_TRUE(Module().SetBinning(4));
    unsigned binning = 0;
    ASSERT_TRUE(Module().GetBinning(binning));
    EXPECT_EQ(binning, 4u);
    EXPECT_EQ(Module().GetImageWidth(), 16u);  // refreshed after the change

    FakeGrabberConfig config;
    config.binning = false;
    ASSERT_TRUE(LoadFake(config));
    binning = 0;
    EXPECT_FALSE(Module().GetBinning(binning));
    EXPECT_EQ(binning, 1u);
    EXPECT_EQ(Module().GetLastError(), eKErrUnsupportedFeature);
    EXPECT_GRAB_ERROR(Module().SetBinning(2), eKErrUnsupportedFeature);

    ASSERT_TRUE(Module().Unload());
    EXPECT_GRAB_ERROR(Module().ShowProperties(nullptr), eKErrNoGrabberLoaded);
    binning = 0;
    EXPECT_FALSE(Module().GetBinning(binning));
    EXPECT_EQ(binning, 1u);
    EXPECT_EQ(Module().GetLastError(), eKErrNoGrabberLoaded);
}

TEST_F(GrabModuleTest, BufferStatisticsFrameInformationAndTheirAbsence) {
    ASSERT_TRUE(LoadFake());
    EXPECT_EQ(Module().GetBufferUsage(), 1);
    EXPECT_EQ(Module().GetMaxBufferUsage(), 3);
    EXPECT_EQ(Module().GetTotalBufferCount(), 7);
    eKBayerPatternOrigin origin = eKBayerOriginGR;
    ASSERT_TRUE(Module().GetBayerPattern(origin));
    EXPECT_EQ(origin, eKBayerOriginBG);
    uint64_t delivered = 0, lost = 0, incomplete = 0;
    ASSERT_TRUE(Module().GetFrameCounters(delivered, lost, incomplete));
    EXPECT_EQ((std::vector<uint64_t>{delivered, lost, incomplete}),
              (std::vector<uint64_t>{11, 2, 1}));

    FakeGrabberConfig config;
    config.bufferStatistics = config.frameInfo = false;
    ASSERT_TRUE(LoadFake(config));
    EXPECT_EQ(Module().GetBufferUsage(), 0xFFFFFFFF);
    EXPECT_EQ(Module().GetMaxBufferUsage(), 0xFFFFFFFF);
    EXPECT_EQ(Module().GetTotalBufferCount(), 0xFFFFFFFF);
    origin = eKBayerOriginGR;
    EXPECT_FALSE(Module().GetBayerPattern(origin));
    EXPECT_EQ(origin, eKBayerOriginGR);
    EXPECT_GRAB_ERROR(Module().GetFrameCounters(delivered, lost, incomplete),
                      eKErrUnsupportedFeature);
}

TEST_F(GrabModuleTest, QueryGrabberClearsTheResultAndRecordsNothing) {
    FakeGrabberConfig withoutQuery;
    withoutQuery.query = false;
    FakeGrabber::Install({});
    for (const bool loaded : {false, true}) {  // no grabber, then no query interface
        if (loaded) {
            ASSERT_TRUE(LoadFake(withoutQuery));
        }
        long result = 77;
        EXPECT_FALSE(Module().QueryGrabber(21, &result));
        EXPECT_EQ(result, 0);
        EXPECT_EQ(Module().GetLastError(), eKErrSuccess);
    }
    ASSERT_TRUE(LoadFake());
    long result = 0;
    EXPECT_TRUE(Module().QueryGrabber(21, &result));
    EXPECT_EQ(result, 42);
}

TEST_F(GrabModuleTest, AdvancedSettingsWindowCodes) {
    FakeGrabber::Install({});
    EXPECT_GRAB_ERROR(Module().IsSupportAdvanceSettings(), eKErrNoGrabberLoaded);
    EXPECT_GRAB_ERROR(Module().CreateAdvanceSettingsWindow(nullptr), eKErrNoGrabberLoaded);

    ASSERT_TRUE(LoadFake());
    EXPECT_TRUE(Module().IsSupportAdvanceSettings());
    // The modal window answers 83 whether it could run or not.
    EXPECT_GRAB_ERROR(Module().DoModalAdvanceSettingsWindow(), eKErrAdvanceSettingsUnsupported);

    FakeGrabberConfig config;
    config.advancedFeatures = false;
    ASSERT_TRUE(LoadFake(config));
    EXPECT_FALSE(Module().IsSupportAdvanceSettings());
    EXPECT_GRAB_ERROR(Module().DoModalAdvanceSettingsWindow(), eKErrAdvanceSettingsUnsupported);
    for (bool ok :
         {Module().CreateAdvanceSettingsWindow(nullptr),
          Module().ReSizeAdvanceSettingsWindow(0, 0, 10, 10),
          Module().ShowAdvanceSettingsWindow(true), Module().CloseAdvanceSettingsWindow()})
        EXPECT_FALSE(ok);
    EXPECT_EQ(Module().GetLastError(), eKErrAdvanceSettingsUnsupported);
}

TEST_F(GrabModuleTest, IoDriversAreMadeOnceAndDroppedAtUnload) {
    FakeGrabber::Install({});
    EXPECT_EQ(Module().GetIODriver(), nullptr);
    EXPECT_EQ(Module().GetLastError(), eKErrNoGrabberLoaded);
    EXPECT_EQ(Module().GetVideoOutputDriver(), nullptr);

    ASSERT_TRUE(LoadFake());
    KIODriver* io = Module().GetIODriver();
    ASSERT_NE(io, nullptr);
    EXPECT_EQ(Module().GetIODriver(), io);
    KVideoOutputDriver* video = Module().GetVideoOutputDriver();
    ASSERT_NE(video, nullptr);
    EXPECT_EQ(Module().GetVideoOutputDriver(), video);
    ASSERT_TRUE(Module().Unload());
    EXPECT_EQ(Module().GetIODriver(), nullptr);
}
