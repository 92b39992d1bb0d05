#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KUtils.h"
#include "platform/WideString.h"
#include "support/DebugCapture.h"

using kestor::WideToUtf8;
using kestor::test::DebugCapture;
using ::testing::ElementsAre;

TEST(FormatNames, KnownFormatsKeepTheirTexts) {
    DebugCapture capture;
    EXPECT_EQ(WideToUtf8(KImageFormatString(eKFormatUnknown)), "Format Unknown");
    EXPECT_EQ(WideToUtf8(KImageFormatString(eKFormatMonoBayerLE)), "Monochrome Bayer(LE)image");
    EXPECT_EQ(WideToUtf8(KImageFormatString(eKFormatBGR10Packed)), "BGR 10 bits Pixel Packed");
    EXPECT_EQ(WideToUtf8(KImageFormatString(eKFormatBGR10PackedAlt)), "BGR 10 bits Pixel Packed");
    EXPECT_EQ(WideToUtf8(KImageFormatString(eKFormatBGRPlanar)), "BGR planar image");
    EXPECT_EQ(WideToUtf8(KImageFormatString(eKFormatPhotonFocusDoubleRate)),
              "Photon Focus Double Rate");
    EXPECT_EQ(WideToUtf8(KImageCompressionString(eKCompressionNone)), "None (Raw image)");
    EXPECT_EQ(WideToUtf8(KImageCompressionString(eKCompressionBYRFlat2D)), "Createc BYR (Flat 2D)");
    EXPECT_EQ(WideToUtf8(KImageCompressionString(eKCompressionBYRGreenAverage)),
              "Createc(BYR Green Average)");
    EXPECT_TRUE(capture.Lines().empty());
}

TEST(FormatNames, UnknownValuesGiveFallbackAndOneDebugLine) {
    DebugCapture capture;
    EXPECT_EQ(WideToUtf8(KImageFormatString(static_cast<eKImageFormat>(42))), "Unsupported format");
    EXPECT_EQ(WideToUtf8(KImageCompressionString(static_cast<eKCompression>(16))),
              "Unknown compression");
    EXPECT_THAT(capture.Lines(), ElementsAre("Kestor: Unsupported format is #42\n",
                                             "Kestor: Unknown compression ID #16\n"));
}

TEST(FormatNames, MonoFormatsExcludeThePcoPackedOnes) {
    int mono = 0;
    for (uint32_t v = 0; v < 1100; ++v) {
        if (IsFormatMono(static_cast<eKImageFormat>(v))) ++mono;
    }
    EXPECT_EQ(mono, 11);
    EXPECT_TRUE(IsFormatMono(eKFormatMonoBayerPackedAlt));
    EXPECT_TRUE(IsFormatMono(eKFormatPhotonFocusDoubleRate));
    EXPECT_FALSE(IsFormatMono(eKFormatMonoPcoPacked));
    EXPECT_FALSE(IsFormatMono(eKFormatMonoBayerPcoPacked));
    EXPECT_FALSE(IsFormatMono(eKFormatBGR));
}
