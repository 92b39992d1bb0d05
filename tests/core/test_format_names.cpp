#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KUtils.h"
#include "platform/WideString.h"
#include "support/DebugCapture.h"

using kestor::WideToUtf8;
using kestor::test::DebugCapture;
using ::testing::ElementsAre;

TEST(FormatNames, KnownValuesKeepTheirTextsAndUnknownOnesFallBackWithADebugLine) {
    DebugCapture capture;
    const std::pair<eKImageFormat, const char*> formats[] = {
        {eKFormatUnknown, "Format Unknown"},
        {eKFormatMonoBayerLE, "Monochrome Bayer(LE)image"},
        {eKFormatBGR10Packed, "BGR 10 bits Pixel Packed"},
        {eKFormatBGR10PackedAlt, "BGR 10 bits Pixel Packed"}};
    for (const auto& [format, text] : formats)
        EXPECT_EQ(WideToUtf8(KImageFormatString(format)), text);
    const std::pair<eKCompression, const char*> compressions[] = {
        {eKCompressionBYRFlat1D, "Createc BYR(Flat 1D)"},
        {eKCompressionBYRFlat2D, "Createc BYR (Flat 2D)"},
        {eKCompressionBYRGreenAverage, "Createc(BYR Green Average)"}};
    for (const auto& [compression, text] : compressions)
        EXPECT_EQ(WideToUtf8(KImageCompressionString(compression)), text);
    EXPECT_TRUE(capture.Lines().empty());

    EXPECT_EQ(WideToUtf8(KImageFormatString(static_cast<eKImageFormat>(42))), "Unsupported format");
    EXPECT_EQ(WideToUtf8(KImageCompressionString(static_cast<eKCompression>(16))),
              "Unknown compression");
    EXPECT_THAT(capture.Lines(), ElementsAre("Kestor: Unsupported format is #42\n",
                                             "Kestor: Unknown compression ID #16\n"));
}

TEST(FormatNames, MonoFormatsExcludeThePcoPackedOnes) {
    int mono = 0;
    for (uint32_t v = 0; v < 1100; ++v) mono += IsFormatMono(static_cast<eKImageFormat>(v));
    EXPECT_EQ(mono, 11);
    EXPECT_TRUE(IsFormatMono(eKFormatMonoBayerPackedAlt));
    EXPECT_TRUE(IsFormatMono(eKFormatPhotonFocusDoubleRate));
    EXPECT_FALSE(IsFormatMono(eKFormatMonoPcoPacked));
    EXPECT_FALSE(IsFormatMono(eKFormatMonoBayerPcoPacked));
}
