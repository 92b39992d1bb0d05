// Geometry, pixel formats and binning of the simulated camera.
#include "simulated/PixelFormats.h"
#include "simulated_test_support.h"

namespace kestor::simulated::testing {
namespace {

using SimulatedGeometry = SimulatedCameraTest;

std::vector<uint32_t> Geometry(SimulatedCamera& camera) {
    uint32_t w = 0, h = 0, x = 0, y = 0;
    EXPECT_EQ(camera.GetImageSize(&w, &h, &x, &y), kKOk);
    return {w, h, x, y};
}

TEST_F(SimulatedGeometry, SetImageSizeChecksBoundsAndAlignmentAndChangesNothingOnFailure) {
    auto camera = MakeCamera();
    EXPECT_EQ(camera->SetImageSize(4096, 3072, 0, 0), kKOk);  // the whole sensor is fine
    ASSERT_EQ(camera->SetImageSize(640, 480, 16, 8), kKOk);
    EXPECT_EQ(Geometry(*camera.Get()), std::vector<uint32_t>({640, 480, 16, 8}));
    const std::vector<uint32_t> refused[] = {
        {650, 480, 0, 0},            // width not a multiple of 16
        {640, 481, 0, 0},            // odd height
        {48, 480, 0, 0},             // too narrow
        {640, 8, 0, 0},              // too low
        {4096, 480, 1, 0},           // past the right edge
        {640, 3072, 0, 2},           // past the bottom
        {640, 480, 0xFFFFFFF0u, 0},  // an offset that would wrap around
    };
    for (const auto& g : refused) {
        EXPECT_TRUE(KFailed(camera->SetImageSize(g[0], g[1], g[2], g[3]))) << g[0] << "," << g[1];
        EXPECT_EQ(Geometry(*camera.Get()), std::vector<uint32_t>({640, 480, 16, 8}));
    }
}

TEST_F(SimulatedGeometry, ImageSizeFollowsThePixelFormat) {
    auto camera = MakeCamera();
    ASSERT_EQ(camera->SetImageSize(320, 200, 0, 0), kKOk);
    struct Expect {
        const KChar* name;
        uint32_t format, bits, real, bytes;
    };
    const Expect expected[] = {
        {u"Mono 8", 100, 8, 8, 64000},           {u"Mono 10", 100, 16, 10, 128000},
        {u"Bayer RG 8", 101, 8, 8, 64000},       {u"Mono 10 Packed", 131, 10, 10, 80000},
        {u"Mono 12 Packed", 131, 12, 12, 96000}, {u"BGR 8", 200, 24, 8, 192000},
        {u"BGRx 8", 500, 32, 8, 256000},         {u"YUV 422", 600, 16, 8, 128000},
    };
    for (const Expect& e : expected) {
        ASSERT_EQ(camera->SetCurrentValues(1, FindPixelFormat(e.name)), kKOk);  // "Pixel Format"
        uint32_t format = 0, bits = 0, real = 0, bytes = 0;
        camera->GetImageFormat(&format);
        camera->GetBitDepth(&bits);
        camera->GetRealBitDepth(&real);
        camera->GetImageSizeBytes(&bytes);
        EXPECT_EQ(std::vector<uint32_t>({format, bits, real, bytes}),
                  std::vector<uint32_t>({e.format, e.bits, e.real, e.bytes}));
    }
}

TEST_F(SimulatedGeometry, BinningDividesTheDeliveredSizeAndKeepsTheRegion) {
    auto camera = MakeCamera();
    ASSERT_EQ(camera->SetImageSize(2048, 1024, 512, 256), kKOk);
    ASSERT_EQ(camera->SetBinning(2), kKOk);
    EXPECT_EQ(Geometry(*camera.Get()), std::vector<uint32_t>({1024, 512, 256, 128}));
    // Bounds now apply to the binned sensor of 2048 x 1536.
    EXPECT_TRUE(KFailed(camera->SetImageSize(2064, 512, 0, 0)));
    EXPECT_EQ(camera->SetImageSize(2048, 1536, 0, 0), kKOk);
    ASSERT_EQ(camera->SetBinning(4), kKOk);
    EXPECT_EQ(Geometry(*camera.Get()), std::vector<uint32_t>({1024, 768, 0, 0}));
    EXPECT_TRUE(KFailed(camera->SetBinning(3)));
    uint32_t factor = 0;
    camera->GetBinning(&factor);
    EXPECT_EQ(factor, 4u);
    ASSERT_EQ(camera->SetBinning(1), kKOk);
    EXPECT_EQ(Geometry(*camera.Get()), std::vector<uint32_t>({4096, 3072, 0, 0}));
}

TEST_F(SimulatedGeometry, BayerOriginShiftsWithOddOffsets) {
    auto camera = MakeCamera();
    uint32_t origin = 99;
    EXPECT_TRUE(KFailed(camera->GetBayerOrigin(&origin)));  // Mono 8 has none
    ASSERT_EQ(camera->SetCurrentValues(1, FindPixelFormat(u"Bayer GR 8")), kKOk);
    const uint32_t cases[][3] = {{0, 0, eKBayerOriginGR},
                                 {1, 0, eKBayerOriginRG},
                                 {0, 1, eKBayerOriginBG},
                                 {1, 1, eKBayerOriginGB},
                                 {2, 2, eKBayerOriginGR}};
    for (const auto& c : cases) {
        ASSERT_EQ(camera->SetImageSize(256, 128, c[0], c[1]), kKOk);
        ASSERT_EQ(camera->GetBayerOrigin(&origin), kKOk);
        EXPECT_EQ(origin, c[2]) << c[0] << "," << c[1];
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
