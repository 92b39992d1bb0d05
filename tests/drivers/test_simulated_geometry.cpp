// Geometry, pixel formats and binning of the simulated camera.
#include "simulated/PixelFormats.h"
#include "simulated_test_support.h"

namespace kestor::simulated::testing {
namespace {

using SimulatedGeometry = SimulatedCameraTest;

struct Geometry {
    uint32_t width, height, left, top;
};

Geometry Current(SimulatedCamera& camera) {
    Geometry g{};
    EXPECT_EQ(camera.GetImageSize(&g.width, &g.height, &g.left, &g.top), kKOk);
    return g;
}

TEST_F(SimulatedGeometry, SetImageSizeChecksBoundsAndAlignmentAndChangesNothingOnFailure) {
    auto camera = MakeCamera();
    ASSERT_EQ(camera->SetImageSize(640, 480, 16, 8), kKOk);
    const Geometry good = Current(*camera.Get());
    EXPECT_EQ(good.width, 640u);
    EXPECT_EQ(good.height, 480u);
    EXPECT_EQ(good.left, 16u);
    EXPECT_EQ(good.top, 8u);

    EXPECT_EQ(camera->SetImageSize(4096, 3072, 0, 0), kKOk);  // the whole sensor is fine
    EXPECT_EQ(camera->SetImageSize(640, 480, 16, 8), kKOk);
    const Geometry refused[] = {
        {650, 480, 0, 0},            // width not a multiple of 16
        {640, 481, 0, 0},            // odd height
        {48, 480, 0, 0},             // too narrow
        {640, 8, 0, 0},              // too low
        {4096, 480, 1, 0},           // past the right edge
        {640, 3072, 0, 2},           // past the bottom
        {640, 480, 0xFFFFFFF0u, 0},  // an offset that would wrap around
    };
    for (const Geometry& g : refused) {
        EXPECT_TRUE(KFailed(camera->SetImageSize(g.width, g.height, g.left, g.top)))
            << g.width << "x" << g.height << "+" << g.left << "+" << g.top;
        const Geometry now = Current(*camera.Get());
        EXPECT_EQ(now.width, 640u);
        EXPECT_EQ(now.left, 16u);
    }
}

TEST_F(SimulatedGeometry, ImageSizeFollowsTheFormatTable) {
    auto camera = MakeCamera();
    ASSERT_EQ(camera->SetImageSize(320, 200, 0, 0), kKOk);
    struct Expect {
        const KChar* name;
        uint32_t format, bits, real, bytes;
    };
    const Expect expected[] = {
        {u"Mono 8", 100, 8, 8, 64000},           {u"Mono 10", 100, 16, 10, 128000},
        {u"Mono 12", 100, 16, 12, 128000},       {u"Mono 16", 100, 16, 16, 128000},
        {u"Bayer RG 8", 101, 8, 8, 64000},       {u"Bayer BG 16", 101, 16, 16, 128000},
        {u"Mono 10 Packed", 131, 10, 10, 80000}, {u"Mono 12 Packed", 131, 12, 12, 96000},
        {u"BGR 8", 200, 24, 8, 192000},          {u"BGRx 8", 500, 32, 8, 256000},
        {u"YUV 422", 600, 16, 8, 128000},
    };
    for (const Expect& e : expected) {
        const int32_t index = FindPixelFormat(e.name);
        ASSERT_GE(index, 0);
        ASSERT_EQ(camera->SetCurrentValues(1, index), kKOk);  // "Pixel Format"
        uint32_t format = 0, bits = 0, real = 0, bytes = 0;
        camera->GetImageFormat(&format);
        camera->GetBitDepth(&bits);
        camera->GetRealBitDepth(&real);
        camera->GetImageSizeBytes(&bytes);
        EXPECT_EQ(format, e.format);
        EXPECT_EQ(bits, e.bits);
        EXPECT_EQ(real, e.real);
        EXPECT_EQ(bytes, e.bytes);
    }
}

TEST_F(SimulatedGeometry, BinningDividesTheDeliveredSizeAndKeepsTheRegion) {
    auto camera = MakeCamera();
    ASSERT_EQ(camera->SetImageSize(2048, 1024, 512, 256), kKOk);
    ASSERT_EQ(camera->SetBinning(2), kKOk);
    Geometry g = Current(*camera.Get());
    EXPECT_EQ(g.width, 1024u);
    EXPECT_EQ(g.height, 512u);
    EXPECT_EQ(g.left, 256u);
    EXPECT_EQ(g.top, 128u);
    uint32_t factor = 0;
    camera->GetBinning(&factor);
    EXPECT_EQ(factor, 2u);
    // Bounds now apply to the binned sensor of 2048 x 1536.
    EXPECT_TRUE(KFailed(camera->SetImageSize(2064, 512, 0, 0)));
    EXPECT_EQ(camera->SetImageSize(2048, 1536, 0, 0), kKOk);

    ASSERT_EQ(camera->SetBinning(4), kKOk);
    g = Current(*camera.Get());
    EXPECT_EQ(g.width, 1024u);
    EXPECT_EQ(g.height, 768u);
    EXPECT_TRUE(KFailed(camera->SetBinning(3)));
    camera->GetBinning(&factor);
    EXPECT_EQ(factor, 4u);
    ASSERT_EQ(camera->SetBinning(1), kKOk);
    g = Current(*camera.Get());
    EXPECT_EQ(g.width, 4096u);
    EXPECT_EQ(g.height, 3072u);
}

TEST_F(SimulatedGeometry, BayerOriginShiftsWithOddOffsets) {
    auto camera = MakeCamera();
    uint32_t origin = 99;
    EXPECT_TRUE(KFailed(camera->GetBayerOrigin(&origin)));  // Mono 8 has none
    ASSERT_EQ(camera->SetCurrentValues(1, FindPixelFormat(u"Bayer GR 8")), kKOk);
    struct Case {
        uint32_t left, top, origin;
    };
    const Case cases[] = {{0, 0, eKBayerOriginGR},
                          {1, 0, eKBayerOriginRG},
                          {0, 1, eKBayerOriginBG},
                          {1, 1, eKBayerOriginGB},
                          {2, 2, eKBayerOriginGR}};
    for (const Case& c : cases) {
        ASSERT_EQ(camera->SetImageSize(256, 128, c.left, c.top), kKOk);
        ASSERT_EQ(camera->GetBayerOrigin(&origin), kKOk);
        EXPECT_EQ(origin, c.origin) << c.left << "," << c.top;
    }
    ASSERT_EQ(camera->SetCurrentValues(1, FindPixelFormat(u"Bayer BG 16")), kKOk);
    ASSERT_EQ(camera->SetImageSize(256, 128, 1, 0), kKOk);
    ASSERT_EQ(camera->GetBayerOrigin(&origin), kKOk);
    EXPECT_EQ(origin, static_cast<uint32_t>(eKBayerOriginGB));
}

TEST_F(SimulatedGeometry, GeometryIsLockedWhileStreaming) {
    auto camera = MakeCamera();
    ASSERT_EQ(camera->SetImageSize(128, 64, 0, 0), kKOk);
    ASSERT_EQ(camera->SetBufferCount(2), kKOk);
    ASSERT_EQ(camera->Start(), kKOk);
    EXPECT_TRUE(KFailed(camera->SetImageSize(256, 64, 0, 0)));
    EXPECT_TRUE(KFailed(camera->SetBinning(2)));
    EXPECT_TRUE(KFailed(camera->SetCurrentValues(1, 3)));
    int32_t accessible = 1;
    ASSERT_EQ(camera->Accessible(0, 0, &accessible), kKOk);  // Image Format / Width
    EXPECT_EQ(accessible, 0);
    EXPECT_EQ(camera->SetDoubleValue(3, 50.0), kKOk);  // the frame rate may change
    camera->Stop();
    ASSERT_EQ(camera->Accessible(0, 0, &accessible), kKOk);
    EXPECT_EQ(accessible, 1);
    EXPECT_EQ(camera->SetImageSize(256, 64, 0, 0), kKOk);
}

}  // namespace
}  // namespace kestor::simulated::testing
