// Pixel format mapping and frame-id bookkeeping of the GenICam driver, and the formats the
// fake camera offers as the driver reports them.
#include <gtest/gtest.h>

#include <cstring>

#include "KGrab.h"
#include "genicam/FrameIdTracker.h"
#include "genicam/PixelFormatMap.h"
#include "test_genicam_support.h"

namespace kestor::genicam::test {
namespace {

TEST(GenICamPixelFormats, MapToLibraryFormatsWithStoredAndSignificantBits) {
    struct Expected {
        const char* name;
        uint32_t pfnc, format, bits, realBits;
        int32_t origin;
    };
    const Expected table[] = {
        {"Mono8", 0x01080001, eKFormatMono, 8, 8, kNoBayerOrigin},
        {"Mono10", 0x01100003, eKFormatMono, 16, 10, kNoBayerOrigin},
        {"Mono16", 0x01100007, eKFormatMono, 16, 16, kNoBayerOrigin},
        {"Mono10p", 0x010A0046, eKFormatMonoPacked, 10, 10, kNoBayerOrigin},
        {"Mono12Packed", 0x010C0006, eKFormatMonoPackedAlt, 12, 12, kNoBayerOrigin},
        {"Mono10Packed", 0x010C0004, eKFormatUnknown, 12, 10, kNoBayerOrigin},
        {"BayerGR8", 0x01080008, eKFormatMonoBayer, 8, 8, eKBayerOriginGR},
        {"BayerRG8", 0x01080009, eKFormatMonoBayer, 8, 8, eKBayerOriginRG},
        {"BayerGB8", 0x0108000A, eKFormatMonoBayer, 8, 8, eKBayerOriginGB},
        {"BayerBG8", 0x0108000B, eKFormatMonoBayer, 8, 8, eKBayerOriginBG},
        {"BayerBG12", 0x01100013, eKFormatMonoBayer, 16, 12, eKBayerOriginBG},
        {"BayerGR12Packed", 0x010C002A, eKFormatMonoBayerPackedAlt, 12, 12, eKBayerOriginGR},
        {"BayerRG12p", 0x010C0059, eKFormatMonoBayerPacked, 12, 12, eKBayerOriginRG},
        {"RGB8", 0x02180014, eKFormatRGB, 24, 8, kNoBayerOrigin},
        {"YUV422_8", 0x02100032, eKFormatYUV422, 16, 8, kNoBayerOrigin},
        {"YUV422_8_UYVY", 0x0210001F, eKFormatUVY422, 16, 8, kNoBayerOrigin},
    };
    for (const Expected& e : table) {
        const PixelFormatInfo info = DescribePixelFormat(e.pfnc);
        EXPECT_STREQ(info.name, e.name);
        EXPECT_EQ(info.imageFormat, e.format) << e.name;
        EXPECT_EQ(info.bitDepth, e.bits) << e.name;
        EXPECT_EQ(info.realBitDepth, e.realBits) << e.name;
        EXPECT_EQ(info.bayerOrigin, e.origin) << e.name;
    }
    // An unknown code is delivered as it comes, with the bits per pixel the code carries.
    const PixelFormatInfo unknown = DescribePixelFormat(0x0220ABCD);
    EXPECT_EQ(unknown.imageFormat, eKFormatUnknown);
    EXPECT_EQ(unknown.bitDepth, 32u);
    // Packed formats share bytes: four 10-bit pixels in five bytes, two 12-bit ones in three.
    EXPECT_EQ(ImageBytes(DescribePixelFormat(0x010A0046), 4, 1), 5u);
    EXPECT_EQ(ImageBytes(DescribePixelFormat(0x010C0006), 2, 1), 3u);
    EXPECT_EQ(ImageBytes(DescribePixelFormat(0x02180014), 640, 480), 640u * 480u * 3u);
}

TEST(GenICamFrameIds, GapsCountLostFramesAcrossThe16BitWrap) {
    FrameIdTracker ids;
    EXPECT_EQ(ids.Observe(65534), 0u);  // the first id after a reset
    EXPECT_EQ(ids.Observe(65535), 0u);
    EXPECT_EQ(ids.Observe(1), 0u);  // 0 is skipped when the 16-bit id wraps
    EXPECT_EQ(ids.Observe(4), 2u);
    EXPECT_EQ(ids.Observe(65534), 0u);  // a step back is a restarted count, not a lap lost
    EXPECT_EQ(ids.Observe(2), 2u);      // 65535 and 1 are missing
    ids.Reset();
    EXPECT_EQ(ids.Observe(100000), 0u);  // 64-bit ids count straight up
    EXPECT_EQ(ids.Observe(100010), 9u);
    EXPECT_EQ(FrameIdTracker::Next16(65535), 1u);
    EXPECT_EQ(FrameIdTracker::Next16(7), 8u);
}

using GenICamLiveFormats = GenICamCameraTest;

// Each pixel format the fake camera offers, chosen through the named setting "PixelFormat",
// is described by the image format interface and delivered with the matching size.
TEST_F(GenICamLiveFormats, EveryOfferedPixelFormatIsDescribedAndDelivered) {
    const int32_t pixelFormat = SettingIndex(camera, "PixelFormat");
    ASSERT_GE(pixelFormat, 0);
    int32_t values = 0;
    ASSERT_EQ(camera->GetValuesCount(pixelFormat, &values), kKOk);
    ASSERT_GE(values, 7);  // Mono8, Mono16, RGB8 and the four Bayer 8-bit formats
    int checked = 0;
    for (int32_t value = 0; value < values; ++value) {
        KAbiChar nameText[kKMaxNameLength] = {};
        int32_t pfnc = 0;
        ASSERT_EQ(camera->GetValuesCaps(pixelFormat, value, nameText, kKMaxNameLength, &pfnc),
                  kKOk);
        const std::string name = WideToUtf8(nameText);
        if (camera->SetCurrentValues(pixelFormat, value) != kKOk) continue;  // not available
        int32_t current = -1;
        ASSERT_EQ(camera->GetCurrentValues(pixelFormat, &current), kKOk);
        EXPECT_EQ(current, value) << name;
        const PixelFormatInfo expected = DescribePixelFormat(static_cast<uint32_t>(pfnc));
        EXPECT_STREQ(expected.name, name.c_str());
        uint32_t format = 0, bits = 0, realBits = 0, bytes = 0, w = 0, h = 0, x = 0, y = 0;
        uint32_t origin = 99;
        camera->GetImageSize(&w, &h, &x, &y);
        ASSERT_EQ(camera->GetImageFormat(&format) | camera->GetBitDepth(&bits) |
                      camera->GetRealBitDepth(&realBits) | camera->GetImageSizeBytes(&bytes),
                  kKOk);
        EXPECT_EQ(std::vector<uint32_t>({format, bits, realBits, bytes}),
                  std::vector<uint32_t>({expected.imageFormat, expected.bitDepth,
                                         expected.realBitDepth, w * h * bits / 8}))
            << name;
        if (expected.bayerOrigin == kNoBayerOrigin) {
            EXPECT_LT(camera->GetBayerOrigin(&origin), 0) << name;
        } else {
            ASSERT_EQ(camera->GetBayerOrigin(&origin), kKOk) << name;
            EXPECT_EQ(origin, static_cast<uint32_t>(expected.bayerOrigin)) << name;
        }
        // One frame in this format: the buffer holds the whole image, the pattern is there.
        ASSERT_EQ(camera->SetBufferCount(3), kKOk) << name;
        int32_t bufferBytes = 0;
        ASSERT_EQ(camera->Query(kQueryBufferBytes, &bufferBytes), kKOk);
        EXPECT_GE(static_cast<uint32_t>(bufferBytes), bytes);
        EXPECT_EQ(bufferBytes % 4096, 0);
        bool patternOk = false;
        const StreamResult run = StreamImages(
            camera,
            [&](void* pixels) {
                KGrabFrameInfo info{sizeof(KGrabFrameInfo), 0, 0, 0, 0, 0};
                EXPECT_EQ(camera->GetLastImageInfo(&info), kKOk);
                EXPECT_EQ(reinterpret_cast<uintptr_t>(pixels) % 4096, 0u);
                const auto* p = static_cast<const uint8_t*>(pixels);
                if (name == "Mono8") {
                    patternOk = p[0] == FakeMono8(0, 0, info.frameId) &&
                                p[w + 3] == FakeMono8(3, 1, info.frameId);
                } else if (name == "Mono16") {
                    uint16_t first = 0;
                    std::memcpy(&first, p, 2);
                    patternOk = first == (256u * (info.frameId % 65536)) % 65535u;
                } else {
                    // Colour data: a frame where not every byte is equal to the first.
                    patternOk = std::memcmp(p, p + 1, bytes - 1) != 0;
                }
                return false;
            },
            20);
        EXPECT_GE(run.images, 1u) << name;
        EXPECT_FALSE(run.queueFailed) << name;
        EXPECT_TRUE(patternOk) << name;
        ++checked;
    }
    EXPECT_GE(checked, 7);
}

}  // namespace
}  // namespace kestor::genicam::test
