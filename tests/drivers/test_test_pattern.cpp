// The library's test pattern: every format carries the frame number, and a frame that is
// torn, corrupted or read under another geometry is refused.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "KTestPattern.h"
#include "simulated/PixelFormats.h"
#include "simulated/SimulatedConfig.h"

namespace kestor::simulated {
namespace {

KImageDescription Describe(uint32_t formatIndex, uint32_t width, uint32_t height) {
    SimulatedConfig config;
    config.pixelFormat = formatIndex;
    config.width = width;
    config.height = height;
    return DescribeImage(config);
}

TEST(TestPattern, EveryCameraFormatRoundTripsItsFrameNumber) {
    for (size_t format = 0; format < PixelFormatCount(); ++format) {
        SCOPED_TRACE(static_cast<int>(format));
        const KImageDescription description = Describe(static_cast<uint32_t>(format), 160, 48);
        std::vector<uint8_t> frame(description.sizeBytes);
        for (uint64_t number : {0ull, 1ull, 1020ull, 1021ull, 0xFFFFFFFFFFull}) {
            ASSERT_TRUE(KTestPatternFill(frame.data(), description, number));
            uint64_t read = 12345;
            EXPECT_TRUE(KTestPatternVerify(frame.data(), description, &read));
            EXPECT_EQ(read, number);
        }
    }
    // Away from the stamps the picture itself moves from frame to frame, and is a ramp.
    const KImageDescription description = Describe(0, 256, 32);
    std::vector<uint8_t> a(description.sizeBytes), b(description.sizeBytes);
    ASSERT_TRUE(KTestPatternFill(a.data(), description, 7));
    ASSERT_TRUE(KTestPatternFill(b.data(), description, 8));
    EXPECT_NE(std::memcmp(a.data() + 1024, b.data() + 1024, 1024), 0);
    EXPECT_NE(a[1024], a[1030]);
}

TEST(TestPattern, TornFramesAreRefusedWhereverTheTearIs) {
    for (size_t format : {0u, 3u, 9u, 12u, 13u, 14u, 16u}) {
        SCOPED_TRACE(static_cast<int>(format));
        const KImageDescription description = Describe(static_cast<uint32_t>(format), 128, 64);
        std::vector<uint8_t> first(description.sizeBytes), second(description.sizeBytes);
        ASSERT_TRUE(KTestPatternFill(first.data(), description, 41));
        ASSERT_TRUE(KTestPatternFill(second.data(), description, 42));
        const size_t rowBytes = description.sizeBytes / description.height;

        // Top of one frame, bottom of the next (the trailer tells).
        std::vector<uint8_t> torn = first;
        std::memcpy(torn.data() + rowBytes * 32, second.data() + rowBytes * 32, rowBytes * 32);
        EXPECT_FALSE(KTestPatternVerify(torn.data(), description, nullptr));

        // A band of rows from the next frame with both stamps intact (the pixels tell).
        torn = first;
        std::memcpy(torn.data() + rowBytes * 10, second.data() + rowBytes * 10, rowBytes * 3);
        EXPECT_FALSE(KTestPatternVerify(torn.data(), description, nullptr));

        // The stamps of another frame over this one's pixels.
        torn = first;
        std::memcpy(torn.data(), second.data(), 32);
        std::memcpy(torn.data() + torn.size() - 16, second.data() + torn.size() - 16, 16);
        EXPECT_FALSE(KTestPatternVerify(torn.data(), description, nullptr));
    }
}

TEST(TestPattern, AnySingleCorruptedByteIsFound) {
    const KImageDescription description = Describe(0, 64, 16);
    std::vector<uint8_t> frame(description.sizeBytes);
    ASSERT_TRUE(KTestPatternFill(frame.data(), description, 99));
    for (size_t at = 0; at < frame.size(); ++at) {
        frame[at] ^= 0x01;
        EXPECT_FALSE(KTestPatternVerify(frame.data(), description, nullptr)) << "byte " << at;
        frame[at] ^= 0x01;
    }
    EXPECT_TRUE(KTestPatternVerify(frame.data(), description, nullptr));
}

TEST(TestPattern, WrongGeometryAndUnusableDescriptionsAreRefused) {
    const KImageDescription description = Describe(0, 128, 64);
    std::vector<uint8_t> frame(description.sizeBytes);
    ASSERT_TRUE(KTestPatternFill(frame.data(), description, 5));

    KImageDescription other = description;  // same byte count, other shape
    other.width = 64;
    other.height = 128;
    EXPECT_FALSE(KTestPatternVerify(frame.data(), other, nullptr));
    other = description;
    other.format = eKFormatMonoBayer;
    EXPECT_FALSE(KTestPatternVerify(frame.data(), other, nullptr));
    KImageDescription inconsistent = description;
    inconsistent.sizeBytes -= 1;
    EXPECT_FALSE(KTestPatternFill(frame.data(), inconsistent, 1));
    EXPECT_FALSE(KTestPatternVerify(frame.data(), inconsistent, nullptr));
    KImageDescription tiny{4, 4, 8, 8, 16, eKFormatMono};
    uint8_t small[16] = {};
    EXPECT_FALSE(KTestPatternFill(small, tiny, 1));
    KImageDescription partialBytes{5, 16, 12, 12, 5 * 16 * 12 / 8, eKFormatMonoPacked};
    std::vector<uint8_t> packed(partialBytes.sizeBytes);
    EXPECT_FALSE(KTestPatternFill(packed.data(), partialBytes, 1));
    EXPECT_FALSE(KTestPatternFill(nullptr, description, 1));
    EXPECT_FALSE(KTestPatternVerify(nullptr, description, nullptr));

    std::vector<uint8_t> zeros(description.sizeBytes, 0);
    EXPECT_FALSE(KTestPatternVerify(zeros.data(), description, nullptr));
}

TEST(TestPattern, SamplesRespectTheRealBitDepth) {
    // Mono 12 in 16-bit containers: no sample may use the four top bits.
    const KImageDescription description = Describe(2, 1024, 32);
    ASSERT_EQ(description.bitDepthReal, 12u);
    std::vector<uint8_t> frame(description.sizeBytes);
    ASSERT_TRUE(KTestPatternFill(frame.data(), description, 3));
    uint16_t highest = 0;
    for (size_t i = 64; i + 64 < frame.size(); i += 2) {
        highest = std::max<uint16_t>(highest, static_cast<uint16_t>(frame[i] | frame[i + 1] << 8));
    }
    EXPECT_LT(highest, 4096);
    EXPECT_GT(highest, 2048);
}

}  // namespace
}  // namespace kestor::simulated
