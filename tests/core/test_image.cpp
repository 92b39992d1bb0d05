#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <ctime>

#include "KImage.h"
#include "core/CKestorImage.h"

namespace {

bool SuitsDirectIo(const void* p) { return reinterpret_cast<uintptr_t>(p) % 4096 == 0; }

void Fill(KImage& image, uint8_t seed) {
    for (uint32_t i = 0; i < image.GetImageSizeBytes(); ++i)
        image.GetRawImageData()[i] = static_cast<uint8_t>(seed + i * 7);
}

}  // namespace

TEST(Image, ReallocationRoundsTheBufferTo512BytesWithRoomForTheTimestamp) {
    KImage image;
    ASSERT_TRUE(image.ReallocateImage(640, 480, 8, 8, eKFormatMono));
    EXPECT_EQ(image.GetImageSizeBytes(), 307200u);
    EXPECT_EQ(image.GetBufferSizeBytes(), 307712u);
    EXPECT_TRUE(SuitsDirectIo(image.GetRawImageData()));

    ASSERT_TRUE(image.ReallocateImage(10, 10, 12, 12, eKFormatMonoPacked));
    EXPECT_EQ(image.GetImageSizeBytes(), 150u);
    EXPECT_EQ(image.GetBufferSizeBytes(), 512u);

    // Exactly a multiple of 512 once the 8 bytes are added stays as it is.
    ASSERT_TRUE(image.ReallocateImage(504, 1, 8, 8, eKFormatMono));
    EXPECT_EQ(image.GetBufferSizeBytes(), 512u);
    ASSERT_TRUE(image.ReallocateImage(505, 1, 8, 8, eKFormatMono));
    EXPECT_EQ(image.GetBufferSizeBytes(), 1024u);

    EXPECT_EQ(CKestorImage::BufferSizeFor(307200, 100), 307712u);
    EXPECT_EQ(CKestorImage::BufferSizeFor(307200, 600), 308224u);
}

TEST(Image, ReallocationResetsCompressionPlanesAndStampsTheTime) {
    KImage image;
    image.ReallocateCompressedImage(eKCompressionLz, 100);
    const uint32_t before = static_cast<uint32_t>(std::time(nullptr));
    image.SetTimestamp(1, 2, 3);
    ASSERT_TRUE(image.ReallocateImage(30, 20, 24, 24, eKFormatBGRPlanar));
    EXPECT_EQ(image.GetCompressionFormat(), eKCompressionNone);
    EXPECT_EQ(image.GetCompressedChannel(), nullptr);
    EXPECT_EQ(image.GetGreenChannel(), nullptr) << "planes are set by readers, not by allocation";
    EXPECT_EQ(image.GetBlueChannel(), nullptr);
    EXPECT_EQ(image.GetRedChannel(), image.GetRawImageData());
    EXPECT_GE(image.GetTimestamp(), before);
    EXPECT_LE(image.GetTimestamp(), before + 5);
    EXPECT_EQ(image.GetTimestampUS(), 0);
    EXPECT_EQ(image.GetImageFormat(), eKFormatBGRPlanar);
}

TEST(Image, CompressedBufferHoldsItsSizeInFront) {
    KImage image;
    ASSERT_TRUE(image.ReallocateCompressedImage(eKCompressionHuffman, 1000));
    EXPECT_EQ(image.GetCompressionFormat(), eKCompressionHuffman);
    EXPECT_EQ(image.GetCompressedChannelSizeBytes(), 1004u);
    EXPECT_EQ(image.GetCompressedImageSizeBytes(), 1000u);
    EXPECT_EQ(image.GetCompressedImage(), image.GetCompressedChannel() + 4);
    uint32_t stored;
    std::memcpy(&stored, image.GetCompressedChannel(), 4);
    EXPECT_EQ(stored, 1004u);
}

TEST(Image, EmptyHandleAnswersZeroAndNull) {
    KImage image(static_cast<CKestorImage*>(nullptr));
    EXPECT_EQ(image.GetImage(), nullptr);
    EXPECT_EQ(image.GetImageWidth(), 0u);
    EXPECT_EQ(image.GetRawImageData(), nullptr);
    EXPECT_EQ(image.GetCompressedImageSizeBytes(), 0u);
    EXPECT_EQ(image.GetMetadataCount(), 0);
    EXPECT_EQ(image.GetMetadata(0), nullptr);
    // A mutation gives the handle an implementation of its own.
    EXPECT_TRUE(image.ReallocateImage(4, 4, 8, 8, eKFormatMono));
    EXPECT_NE(image.GetImage(), nullptr);

    KImage fresh;
    EXPECT_EQ(fresh.GetImageDescription(), KImageDescription{});
    EXPECT_EQ(fresh.GetRawImageData(), nullptr);
}

TEST(Image, CloneCopiesPixelsTimestampCompressionMetadataAndPlanes) {
    KImage source;
    ASSERT_TRUE(source.ReallocateImage(9, 6, 24, 24, eKFormatBGRPlanar));
    Fill(source, 3);
    source.SetTimestamp(1234, 567, 890);
    source.ReallocateCompressedImage(eKCompressionRle, 16);
    std::memset(source.GetCompressedImage(), 0xAB, 16);
    const uint32_t v = 42;
    source.AddMetadata(KMetadata(4, &v, 4, u"42"));
    source.GetImage()->SetFrameCounter(99);

    KImage* copy = KImage::CloneKImage(&source);
    EXPECT_EQ(copy->GetImageDescription(), source.GetImageDescription());
    EXPECT_NE(copy->GetRawImageData(), source.GetRawImageData());
    EXPECT_EQ(std::memcmp(copy->GetRawImageData(), source.GetRawImageData(), 162), 0);
    EXPECT_EQ(copy->GetTimestamp(), 1234u);
    EXPECT_EQ(copy->GetTimestampMS(), 567);
    EXPECT_EQ(copy->GetTimestampUS(), 890);
    EXPECT_EQ(copy->GetGreenChannel(), copy->GetRawImageData() + 54);
    EXPECT_EQ(copy->GetBlueChannel(), copy->GetRawImageData() + 108);
    EXPECT_EQ(copy->GetCompressedImageSizeBytes(), 16u);
    EXPECT_EQ(copy->GetCompressedImage()[15], 0xAB);
    ASSERT_EQ(copy->GetMetadataCount(), 1);
    EXPECT_EQ(*copy->GetMetadata(0), *source.GetMetadata(0));
    EXPECT_EQ(copy->GetImage()->FrameCounter(), 99u);
    KImage::DeleteKImage(copy);
}

TEST(Image, CloneReusesAMatchingBufferAndReallocatesOtherwise) {
    KImage source, destination;
    source.ReallocateImage(32, 32, 8, 8, eKFormatMono);
    Fill(source, 1);
    destination.ReallocateImage(32, 32, 8, 8, eKFormatMono);
    uint8_t* kept = destination.GetRawImageData();
    KImage::CloneKImage(&destination, &source);
    EXPECT_EQ(destination.GetRawImageData(), kept);
    EXPECT_EQ(std::memcmp(kept, source.GetRawImageData(), 1024), 0);

    source.ReallocateImage(64, 16, 16, 12, eKFormatMonoLE);
    Fill(source, 9);
    KImage::CloneKImage(&destination, &source);
    EXPECT_EQ(destination.GetImageDescription(), source.GetImageDescription());
    EXPECT_EQ(destination.GetCompressionFormat(), eKCompressionNone);
    EXPECT_EQ(std::memcmp(destination.GetRawImageData(), source.GetRawImageData(), 2048), 0);

    // Cloning into a handle without an implementation creates one.
    KImage empty(static_cast<CKestorImage*>(nullptr));
    KImage::CloneKImage(&empty, &source);
    EXPECT_EQ(empty.GetImageSizeBytes(), 2048u);
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

TEST(Image, FreeEmptiesBuffersAndMetadata) {
    KImage image;
    image.ReallocateImage(8, 8, 8, 8, eKFormatMono);
    image.AddMetadata(KMetadata(1, "x", 1));
    image.Free();
    EXPECT_EQ(image.GetRawImageData(), nullptr);
    EXPECT_EQ(image.GetImageSizeBytes(), 0u);
    EXPECT_EQ(image.GetMetadataCount(), 0);
}

TEST(Image, MetadataLookupsByPositionAndType) {
    KImage image;
    for (uint32_t i = 0; i < 5; ++i) {
        const uint32_t type = i % 2 == 0 ? 4 : 7;
        image.AddMetadata(KMetadata(type, &i, sizeof i));
    }
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
    image.RemoveAllMetadata();
    EXPECT_EQ(image.GetMetadataCount(), 0);
}

TEST(Metadata, SerialisedFormIsTypeLengthData) {
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
    EXPECT_EQ(back.GetTypeID(), 0x80000001u);
    EXPECT_EQ(back.GetDataSize(), 3u);
    EXPECT_EQ(back.GetData()[2], 3);

    EXPECT_EQ(back.Deserialize(buffer, 10), 0u) << "length running past the input";
    EXPECT_EQ(back.Deserialize(buffer, 7), 0u) << "truncated header";
    buffer[4] = 0xFF, buffer[7] = 0xFF;  // absurd length
    EXPECT_EQ(back.Deserialize(buffer, 16), 0u);
    EXPECT_EQ(back.GetDataSize(), 3u) << "a failed read leaves the item unchanged";
}
