#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <ctime>
#include <tuple>
#include <utility>

#include "KImage.h"
#include "core/CKestorImage.h"

namespace {

void Fill(KImage& image, uint8_t seed) {
    for (uint32_t i = 0; i < image.GetImageSizeBytes(); ++i)
        image.GetRawImageData()[i] = static_cast<uint8_t>(seed + i * 7);
}

bool SamePixels(const KImage& a, const KImage& b) {
    return a.GetImageSizeBytes() == b.GetImageSizeBytes() &&
           std::memcmp(a.GetRawImageData(), b.GetRawImageData(), a.GetImageSizeBytes()) == 0;
}

}  // namespace

TEST(Image, ReallocationRoundsTheBufferTo512BytesWithRoomForTheTimestamp) {
    KImage image;
    auto sizes = [&](uint32_t width, uint32_t height, uint32_t bits, eKImageFormat format) {
        EXPECT_TRUE(image.ReallocateImage(width, height, bits, bits, format));
        EXPECT_EQ(reinterpret_cast<uintptr_t>(image.GetRawImageData()) % 4096, 0u)
            << "aligned for unbuffered I/O";
        return std::make_pair(image.GetImageSizeBytes(), image.GetBufferSizeBytes());
    };
    EXPECT_EQ(sizes(640, 480, 8, eKFormatMono), std::make_pair(307200u, 307712u));
    EXPECT_EQ(sizes(10, 10, 12, eKFormatMonoPacked), std::make_pair(150u, 512u));
    EXPECT_EQ(sizes(504, 1, 8, eKFormatMono).second, 512u) << "exactly 512 with the timestamp";
    EXPECT_EQ(sizes(505, 1, 8, eKFormatMono).second, 1024u);
    EXPECT_EQ(CKestorImage::BufferSizeFor(307200, 100), 307712u);
    EXPECT_EQ(CKestorImage::BufferSizeFor(307200, 600), 308224u);
}

TEST(Image, CompressedBufferHoldsItsSizeInFrontUntilTheImageIsReallocated) {
    KImage image;
    ASSERT_TRUE(image.ReallocateCompressedImage(eKCompressionHuffman, 1000));
    EXPECT_EQ(image.GetCompressionFormat(), eKCompressionHuffman);
    EXPECT_EQ(image.GetCompressedImageSizeBytes(), 1000u);
    EXPECT_EQ(image.GetCompressedImage(), image.GetCompressedChannel() + 4);
    uint32_t stored;
    std::memcpy(&stored, image.GetCompressedChannel(), 4);
    EXPECT_EQ(stored, 1004u);

    image.SetTimestamp(1, 2, 3);
    const uint32_t before = static_cast<uint32_t>(std::time(nullptr));
    ASSERT_TRUE(image.ReallocateImage(30, 20, 24, 24, eKFormatBGRPlanar));
    EXPECT_EQ(image.GetCompressionFormat(), eKCompressionNone);
    EXPECT_EQ(image.GetCompressedChannel(), nullptr);
    EXPECT_EQ(image.GetGreenChannel(), nullptr) << "planes are set by readers, not by allocation";
    EXPECT_EQ(image.GetBlueChannel(), nullptr);
    EXPECT_GE(image.GetTimestamp(), before) << "stamped with the current time";
    EXPECT_LE(image.GetTimestamp(), before + 5);
    EXPECT_EQ(image.GetTimestampUS(), 0);
}

TEST(Image, EmptyHandlesAnswerZeroAndNullAndFreeEmptiesAnImage) {
    KImage image(static_cast<CKestorImage*>(nullptr));
    EXPECT_EQ(image.GetImage(), nullptr);
    EXPECT_EQ(image.GetRawImageData(), nullptr);
    EXPECT_EQ(image.GetCompressedImageSizeBytes(), 0u);
    EXPECT_EQ(image.GetMetadata(0), nullptr);
    EXPECT_TRUE(image.ReallocateImage(4, 4, 8, 8, eKFormatMono)) << "gets an implementation";
    EXPECT_NE(image.GetImage(), nullptr);
    EXPECT_EQ(KImage().GetImageDescription(), KImageDescription{});

    image.AddMetadata(KMetadata(1, "x", 1));
    image.Free();
    EXPECT_EQ(image.GetRawImageData(), nullptr);
    EXPECT_EQ(image.GetImageSizeBytes(), 0u);
    EXPECT_EQ(image.GetMetadataCount(), 0);
}

TEST(Image, CloneCopiesEverythingReusingAMatchingBufferAndAllocatingOtherwise) {
    KImage source;
    ASSERT_TRUE(source.ReallocateImage(9, 6, 24, 24, eKFormatBGRPlanar));
    Fill(source, 3);
    source.SetTimestamp(1234, 567, 890);
    source.ReallocateCompressedImage(eKCompressionRle, 16);
    std::memset(source.GetCompressedImage(), 0xAB, 16);
    const uint32_t v = 42;
    source.AddMetadata(KMetadata(4, &v, 4, u"42"));
    source.GetImage()->SetFrameCounter(99);

    KImage matching, other, empty(static_cast<CKestorImage*>(nullptr));
    matching.ReallocateImage(9, 6, 24, 24, eKFormatBGRPlanar);
    other.ReallocateImage(64, 16, 16, 12, eKFormatMonoLE);
    uint8_t* kept = matching.GetRawImageData();
    KImage* fresh = KImage::CloneKImage(&source);
    for (KImage* target : {&matching, &other, &empty}) KImage::CloneKImage(target, &source);
    EXPECT_EQ(matching.GetRawImageData(), kept) << "a matching buffer is reused";
    for (const KImage* copy : {fresh, &matching, &other, &empty}) {
        EXPECT_EQ(copy->GetImageDescription(), source.GetImageDescription());
        EXPECT_NE(copy->GetRawImageData(), source.GetRawImageData());
        EXPECT_TRUE(SamePixels(*copy, source));
        EXPECT_EQ(std::tuple(copy->GetTimestamp(), copy->GetTimestampMS(), copy->GetTimestampUS()),
                  std::tuple(1234u, 567, 890));
        EXPECT_EQ(copy->GetGreenChannel(), copy->GetRawImageData() + 54);
        EXPECT_EQ(copy->GetBlueChannel(), copy->GetRawImageData() + 108);
        EXPECT_EQ(copy->GetCompressedImageSizeBytes(), 16u);
        EXPECT_EQ(copy->GetCompressedImage()[15], 0xAB);
        ASSERT_EQ(copy->GetMetadataCount(), 1);
        EXPECT_EQ(*copy->GetMetadata(0), *source.GetMetadata(0));
        EXPECT_EQ(copy->GetImage()->FrameCounter(), 99u);
    }
    KImage::DeleteKImage(fresh);
}

TEST(Image, CopiesShareAndAttachmentDoesNotOwn) {
    auto* foreign = new CKestorImage;
    {
        KImage attached(foreign);
        attached.ReallocateImage(8, 8, 8, 8, eKFormatMono);
        KImage copy = attached;
        EXPECT_EQ(copy.GetImage(), foreign);
    }
    EXPECT_EQ(foreign->Description().width, 8u) << "attached handles leave the object alive";
    delete foreign;

    KImage original;
    original.ReallocateImage(8, 8, 8, 8, eKFormatMono);
    uint8_t* pixels = original.GetRawImageData();
    KImage shared = original;
    original = KImage();  // the shared copy keeps the implementation alive
    EXPECT_EQ(shared.GetRawImageData(), pixels);
    shared.GetRawImageData()[63] = 1;  // ASan would catch a use after free here
}

TEST(Image, MetadataLookupsByPositionAndType) {
    KImage image;
    for (uint32_t i = 0; i < 5; ++i) image.AddMetadata(KMetadata(i % 2 == 0 ? 4 : 7, &i, 4));
    EXPECT_EQ(image.GetMetadataCount(), 5);
    EXPECT_EQ(image.GetMetadata(-1), nullptr);
    EXPECT_EQ(image.GetMetadata(5), nullptr);
    EXPECT_EQ(image.GetSpecificMetadataCount(4), 3);
    EXPECT_EQ(image.GetSpecificMetadataCount(7), 2);
    EXPECT_EQ(image.GetSpecificMetadataCount(33), 0);
    EXPECT_EQ(image.GetSpecificMetadata(33, 0), nullptr);
    ASSERT_NE(image.GetSpecificMetadata(4, 2), nullptr);
    EXPECT_EQ(image.GetSpecificMetadata(4, 2)->GetData()[0], 4);
    EXPECT_EQ(image.GetSpecificMetadata(7, 1)->GetData()[0], 3);
    EXPECT_EQ(image.GetSpecificMetadata(7, 2), nullptr);
    EXPECT_EQ(image.GetSpecificMetadata(7, -1), nullptr);
    image.RemoveAllMetadata();
    EXPECT_EQ(image.GetMetadataCount(), 0);
}

TEST(Metadata, SerialisedFormIsTypeLengthDataAndBadInputIsRefused) {
    const uint8_t data[] = {1, 2, 3};
    KMetadata item(0x80000001u, data, 3, u"one two three");
    uint8_t buffer[16] = {};
    EXPECT_EQ(item.GetSerializedSize(), 11u);
    EXPECT_EQ(item.Serialize(buffer, 10), 0u) << "refuses a buffer that is too small";
    ASSERT_EQ(item.Serialize(buffer, sizeof buffer), 11u);
    const uint8_t expected[] = {0x01, 0, 0, 0x80, 3, 0, 0, 0, 1, 2, 3};
    EXPECT_EQ(std::memcmp(buffer, expected, 11), 0);

    KMetadata back;
    EXPECT_EQ(back.Deserialize(buffer, 11), 11u);
    EXPECT_EQ(back, KMetadata(0x80000001u, data, 3)) << "the display string is not serialised";

    EXPECT_EQ(back.Deserialize(buffer, 10), 0u) << "length running past the input";
    EXPECT_EQ(back.Deserialize(buffer, 7), 0u) << "truncated header";
    buffer[4] = 0xFF, buffer[7] = 0xFF;  // absurd length
    EXPECT_EQ(back.Deserialize(buffer, 16), 0u);
    EXPECT_EQ(back, KMetadata(0x80000001u, data, 3)) << "a failed read leaves the item unchanged";
}
