#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "platform/WideString.h"
#include "sequence/SequenceHeader.h"
#include "support/DebugCapture.h"

using kestor::SequenceHeader;
using kestor::test::DebugCapture;
using ::testing::ElementsAre;

namespace {

uint32_t U32At(const SequenceHeader& h, size_t offset) {
    uint32_t v;
    std::memcpy(&v, reinterpret_cast<const uint8_t*>(&h.data) + offset, 4);
    return v;
}

SequenceHeader ValidHeader() {
    SequenceHeader h;
    h.SetImage({640, 480, 8, 8, 307200, eKFormatMono});
    h.data.trueImageSize = 307712;
    return h;
}

}  // namespace

TEST(SequenceHeader, DefaultsAreLaidOutByteForByte) {
    SequenceHeader h;
    const auto* bytes = reinterpret_cast<const uint8_t*>(&h.data);
    EXPECT_EQ(U32At(h, 0), 0xFEEDu);
    const char16_t expectedName[12] = u"Tavlin seq";
    EXPECT_EQ(std::memcmp(bytes + 4, expectedName, 24), 0);
    EXPECT_EQ(U32At(h, 28), 4u);
    EXPECT_EQ(U32At(h, 32), 1024u);
    EXPECT_EQ(kestor::WideToUtf8(reinterpret_cast<const KChar*>(bytes + 36)), "No Description");
    double rate;
    std::memcpy(&rate, bytes + 584, 8);
    EXPECT_EQ(rate, 30.0);
    EXPECT_EQ(U32At(h, 632), 30u);
    EXPECT_EQ(U32At(h, 636), 5000000u);
    for (size_t offset : {548, 552, 556, 560, 564, 568, 572, 576, 580, 592, 596,
                          600, 604, 608, 612, 616, 620, 624, 628, 640, 644})
        EXPECT_EQ(U32At(h, offset), 0u) << "offset " << offset;
    for (size_t i = 648; i < 1024; ++i) ASSERT_EQ(bytes[i], 0) << "reserved byte " << i;
}

TEST(SequenceHeader, DescriptionKeepsAtMost255Characters) {
    SequenceHeader h;
    const kestor::WideString longText(400, u'd');
    h.SetDescription(longText.c_str());
    EXPECT_EQ(kestor::WideLength(reinterpret_cast<const KChar*>(h.data.description)), 255u);
    const uint8_t raw[3] = {1, 2, 3};
    h.SetDescriptionBytes(raw, 3);
    EXPECT_EQ(reinterpret_cast<const uint8_t*>(h.data.description)[2], 3);
    EXPECT_EQ(reinterpret_cast<const uint8_t*>(h.data.description)[3], 0);
}

TEST(SequenceHeader, ValidationStopsAtTheFirstFailureInOrder) {
    DebugCapture capture;
    bool upgraded;

    SequenceHeader h;  // rate 0 and zero width: the width is the reason, not the rate
    h.data.frameRate = 0.0;
    EXPECT_EQ(h.Validate(upgraded), eKErrInvalidWidth);
    EXPECT_THAT(capture.Lines(), ElementsAre("Kestor: Invalid Sequence Width\n"));

    h = ValidHeader();
    h.data.frameRate = 0.0;
    EXPECT_EQ(h.Validate(upgraded), eKErrSuccess) << "a rate of exactly 0 is accepted";
    h.data.frameRate = -1.0;
    h.data.width = 0;
    EXPECT_EQ(h.Validate(upgraded), eKErrInvalidFrameRate);
    h = ValidHeader();
    h.data.headerSize = 512;
    h.data.magic = 1;
    EXPECT_EQ(h.Validate(upgraded), eKErrInvalidMagic);
    h.data.magic = 0xFEED;
    EXPECT_EQ(h.Validate(upgraded), eKErrInvalidHeaderSize);
    h = ValidHeader();
    h.data.height = 0;
    EXPECT_EQ(h.Validate(upgraded), eKErrInvalidHeight);
    h = ValidHeader();
    h.data.bitDepthReal = 0;
    EXPECT_EQ(h.Validate(upgraded), eKErrInvalidBitDepth);
    h = ValidHeader();
    h.data.imageSizeBytes = 0;
    EXPECT_EQ(h.Validate(upgraded), eKErrInvalidImageSize);
    EXPECT_FALSE(upgraded);
}

TEST(SequenceHeader, OldHeadersAreUpgradedInMemory) {
    DebugCapture capture;
    const std::pair<uint32_t, uint32_t> cases[] = {{2105, 101}, {2202, 200}, {3203, 200},
                                                   {2302, 300}, {2402, 400}, {2502, 500},
                                                   {2602, 600}, {2702, 700}};
    for (auto [legacy, current] : cases) {
        SequenceHeader h = ValidHeader();
        h.data.version = 3;
        h.data.imageFormat = legacy;
        h.data.compression = 77;
        bool upgraded = false;
        EXPECT_EQ(h.Validate(upgraded), eKErrSuccess) << legacy;
        EXPECT_TRUE(upgraded);
        EXPECT_EQ(h.data.imageFormat, current);
        EXPECT_EQ(h.data.version, 4);
        EXPECT_EQ(h.data.compression, 0u);
    }
    SequenceHeader unknown = ValidHeader();
    unknown.data.version = 2;
    unknown.data.imageFormat = 9999;
    bool upgraded = true;
    EXPECT_EQ(unknown.Validate(upgraded), eKErrFormatNotSupportedBySequence);
    EXPECT_FALSE(upgraded);
    EXPECT_TRUE(capture.Lines().size() == 1);
}

TEST(SequenceHeader, SlotArithmetic) {
    EXPECT_EQ(SequenceHeader::SlotSize(1000, 0, 512), 1024u);
    EXPECT_EQ(SequenceHeader::SlotSize(1016, 0, 512), 1024u);
    EXPECT_EQ(SequenceHeader::SlotSize(1017, 0, 512), 1536u);
    EXPECT_EQ(SequenceHeader::SlotSize(1000, 100, 4096), 4096u);
    EXPECT_EQ(SequenceHeader::SlotSize(0xFFFFFFF0u, 0, 512), 0u) << "slots past 4 GiB are refused";

    SequenceHeader h;
    h.data.trueImageSize = 2048;
    EXPECT_EQ(h.SlotOffset(1), 1024u);
    EXPECT_EQ(h.SlotOffset(3), 1024u + 4096u);
    h.data.typeSectionSize = 512;
    EXPECT_EQ(h.SlotOffset(1), 1536u);
    h.data.trueImageSize = 0x80000000u;
    EXPECT_EQ(h.SlotOffset(5), 1536u + 4ull * 0x80000000u) << "64-bit product";
}

TEST(SequenceHeader, BayerOriginOnlyForBayerFormats) {
    SequenceHeader h = ValidHeader();
    h.data.bayerOrigin = 2;
    eKBayerPatternOrigin origin = eKBayerOriginGB;
    EXPECT_FALSE(h.GetBayerPattern(origin)) << "format 100 is not Bayer";
    EXPECT_EQ(origin, eKBayerOriginGB);
    for (uint32_t bayer : {101u, 113u, 115u, 132u, 134u}) {
        h.data.imageFormat = bayer;
        ASSERT_TRUE(h.GetBayerPattern(origin));
        EXPECT_EQ(origin, eKBayerOriginBG);
    }
    h.data.bayerOrigin = 7;
    ASSERT_TRUE(h.GetBayerPattern(origin));
    EXPECT_EQ(origin, eKBayerOriginGR) << "out-of-range values read as 0";
}

TEST(SequenceHeader, ReferenceTimeTravelsWithFlagBit2) {
    SequenceHeader h;
    uint32_t s;
    uint16_t ms, us;
    EXPECT_FALSE(h.GetReferenceTime(s, ms, us));
    h.data.flags = 0x10;
    h.SetReferenceTime(1700000000, 12, 34);
    EXPECT_EQ(h.data.flags, 0x12u);
    ASSERT_TRUE(h.GetReferenceTime(s, ms, us));
    EXPECT_EQ(s, 1700000000u);
    EXPECT_EQ(ms, 12);
    EXPECT_EQ(us, 34);
    h.ResetReferenceTime();
    EXPECT_EQ(h.data.flags, 0x10u);
    EXPECT_EQ(h.data.referenceSeconds, 0u);
    EXPECT_FALSE(h.HasReferenceTime());
}
