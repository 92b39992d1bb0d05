// The 1024-byte header of a sequence file: its layout, validation, upgrade and slot arithmetic.
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
    for (size_t offset = 548; offset < 1024; offset += 4) {
        if (offset < 584 || (offset >= 592 && offset != 632 && offset != 636)) {
            EXPECT_EQ(U32At(h, offset), 0u) << "offset " << offset;
        }
    }

    // The description keeps at most 255 characters.
    h.SetDescription(kestor::WideString(400, u'd').c_str());
    EXPECT_EQ(kestor::WideLength(reinterpret_cast<const KChar*>(h.data.description)), 255u);
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
    const std::pair<void (*)(SequenceHeader&), eKErrorCode> cases[] = {
        {[](SequenceHeader& x) { x.data.height = 0; }, eKErrInvalidHeight},
        {[](SequenceHeader& x) { x.data.bitDepthReal = 0; }, eKErrInvalidBitDepth},
        {[](SequenceHeader& x) { x.data.imageSizeBytes = 0; }, eKErrInvalidImageSize},
    };
    for (const auto& [change, code] : cases) {
        h = ValidHeader();
        change(h);
        EXPECT_EQ(h.Validate(upgraded), code);
    }
    EXPECT_FALSE(upgraded);
}

TEST(SequenceHeader, OldHeadersAreUpgradedInMemory) {
    DebugCapture capture;
    for (auto [legacy, current] : {std::pair{2105u, 101u}, {3203u, 200u}, {2702u, 700u}}) {
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
    EXPECT_EQ(capture.Lines().size(), 1u);
}

TEST(SequenceHeader, SlotArithmetic) {
    EXPECT_EQ(SequenceHeader::SlotSize(1016, 0, 512), 1024u);
    EXPECT_EQ(SequenceHeader::SlotSize(1017, 0, 512), 1536u);
    EXPECT_EQ(SequenceHeader::SlotSize(1000, 100, 4096), 4096u);
    EXPECT_EQ(SequenceHeader::SlotSize(0xFFFFFFF0u, 0, 512), 0u) << "slots past 4 GiB are refused";
    SequenceHeader h;
    h.data.trueImageSize = 2048;
    EXPECT_EQ(h.SlotOffset(3), 1024u + 4096u);
    h.data.typeSectionSize = 512;
    h.data.trueImageSize = 0x80000000u;
    EXPECT_EQ(h.SlotOffset(5), 1536u + 4ull * 0x80000000u) << "64-bit product";
}

TEST(SequenceHeader, BayerOriginAndReferenceTime) {
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

    // The reference time travels with flag bit 2.
    uint32_t s;
    uint16_t ms, us;
    EXPECT_FALSE(h.GetReferenceTime(s, ms, us));
    h.data.flags = 0x10;
    h.SetReferenceTime(1700000000, 12, 34);
    EXPECT_EQ(h.data.flags, 0x12u);
    ASSERT_TRUE(h.GetReferenceTime(s, ms, us));
    EXPECT_EQ(s, 1700000000u);
    EXPECT_EQ(us, 34);
    h.ResetReferenceTime();
    EXPECT_EQ(h.data.flags, 0x10u);
    EXPECT_FALSE(h.HasReferenceTime());
}
