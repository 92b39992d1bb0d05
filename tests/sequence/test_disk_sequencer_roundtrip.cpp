// Frames written to a disk sequence come back bit for bit, with their timestamps and metadata,
// whatever their size, format and the sector size the file was laid out for.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "KMetadataManager.h"
#include "platform/WideString.h"
#include "sequence/CKestorMetadataManager.h"
#include "sequence_test_support.h"
#include "support/DebugCapture.h"

using namespace kestor;
using namespace kestor::test;

namespace {

using DiskRoundTrip = DiskSequencerTest;

void AddInteger(KImage& frame, int32_t value) {
    frame.AddMetadata(KMetadata(4, &value, sizeof value));
}

std::string ShownItem(const KImage& image, int index) {
    return WideToUtf8(image.GetMetadata(index)->GetDisplayString());
}

}  // namespace

TEST_F(DiskRoundTrip, FramesOfAnySizeAndLayoutFillWholeSectorSlots) {
    CKestorSequencerDisk writer;
    ASSERT_TRUE(writer.Create(File("direct.seq")));
    EXPECT_TRUE(writer.IsDirect()) << "frames bypass the page cache on a disk volume";
    EXPECT_GE(writer.BytesPerSector(), 512u);
    EXPECT_EQ(writer.BytesPerSector() & (writer.BytesPerSector() - 1), 0u);

    // 37 x 23 x 16 bit is 1702 bytes: neither pixels nor pixels + timestamp fill whole sectors.
    // The planar frame comes first, so that the packed ones are read into an image with planes.
    KImage image;
    for (const FrameSpec& spec :
         {FrameSpec{30, 20, 24, eKFormatBGRPlanar}, FrameSpec{64, 48, 8, eKFormatMono},
          FrameSpec{37, 23, 16, eKFormatMonoLE}, FrameSpec{1000, 1, 8, eKFormatMono}}) {
        const uint32_t size = spec.width * spec.height * spec.bitDepth / 8;
        SCOPED_TRACE(size);
        const std::string path = File("layout.seq");
        Record(path, spec, 5);
        const SequenceHeaderData header = HeaderOnDisk(path);
        EXPECT_EQ(header.imageSizeBytes, size);
        EXPECT_EQ(header.trueImageSize, SequenceHeader::SlotSize(size, 0, 512));
        const std::vector<uint8_t> bytes = FileBytes(path);
        EXPECT_EQ(bytes.size(), 1024u + 5 * header.trueImageSize);
        ExpectFrames(path, 5);

        CKestorSequencerDisk reader;
        ASSERT_TRUE(OpenForReading(reader, path));
        if (spec.format != eKFormatBGRPlanar) {
            // An image that held planes loses them; one of the right description keeps its buffer.
            ASSERT_TRUE(reader.Read(&image, 1));
            EXPECT_EQ(image.GetGreenChannel(), nullptr);
            image = MakeFrame(spec, 99);
            const uint8_t* buffer = image.GetRawImageData();
            ASSERT_TRUE(reader.Read(&image, 2));
            EXPECT_EQ(image.GetRawImageData(), buffer);
            EXPECT_TRUE(HoldsFrame(image, 2));
            continue;
        }
        // Planar frames are stored plane after plane.
        ASSERT_TRUE(reader.Read(&image, 2));
        const uint32_t third = size / 3;
        EXPECT_EQ(image.GetGreenChannel(), image.GetRawImageData() + third);
        EXPECT_EQ(image.GetBlueChannel(), image.GetRawImageData() + 2 * third);
        EXPECT_EQ(std::memcmp(bytes.data() + 1024 + header.trueImageSize + third,
                              image.GetGreenChannel(), third),
                  0);
    }
}

TEST_F(DiskRoundTrip, MetadataTravelsBehindTheTimestamp) {
    CKestorMetadataManager settings;
    ASSERT_TRUE(settings.SetSequenceMetadataDynamic(false));  // the image's capacity decides
    const std::string path = File("metadata.seq");
    Record(path, FrameSpec{64, 48, 8, eKFormatMono, 200}, 3, [](KImage& frame, uint32_t seed) {
        AddInteger(frame, static_cast<int32_t>(seed) * -1000);
        const char16_t text[] = u"frame";
        frame.AddMetadata(KMetadata(7, text, sizeof text));
    });
    EXPECT_EQ(HeaderOnDisk(path).frameMetadataSize, 200u);
    EXPECT_EQ(HeaderOnDisk(path).trueImageSize, SequenceHeader::SlotSize(64 * 48, 200, 512));

    CKestorSequencerDisk reader;
    ASSERT_TRUE(OpenForReading(reader, path));
    KImage image;
    for (uint32_t frame = 1; frame <= 3; ++frame) {
        ASSERT_TRUE(reader.Read(&image, frame));
        EXPECT_TRUE(HoldsFrame(image, frame));
        ASSERT_EQ(image.GetMetadataCount(), 2);
        EXPECT_EQ(ShownItem(image, 0), std::to_string(static_cast<int>(frame) * -1000));
        EXPECT_EQ(ShownItem(image, 1), "frame");
    }
    EXPECT_EQ(image.GetImage()->ExtraBytes(), 200u) << "recordable again with the same room";

    // A file without metadata leaves no stale items in the image.
    Record(File("plain.seq"), FrameSpec{}, 1);
    ASSERT_TRUE(OpenForReading(reader, File("plain.seq")));
    ASSERT_TRUE(reader.Read(&image, 1));
    EXPECT_EQ(image.GetMetadataCount(), 0);

    // Items that do not fit are reported; the frame is written without them.
    DebugCapture capture;
    CKestorSequencerDisk sequencer;
    ASSERT_TRUE(sequencer.Create(File("small.seq")));
    KImage frame = MakeFrame(FrameSpec{16, 16, 8, eKFormatMono, 16}, 1);
    const std::vector<uint8_t> big(64, 0xAB);
    frame.AddMetadata(KMetadata(8, big.data(), static_cast<uint32_t>(big.size())));
    ASSERT_TRUE(sequencer.Write(&frame));
    EXPECT_EQ(sequencer.GetLastError(), eKErrSuccess);
    const auto lines = capture.Lines();
    EXPECT_EQ(
        std::count(lines.begin(), lines.end(), "Kestor: Failed to write to metadata section\n"), 1);
    ASSERT_TRUE(sequencer.Read(&image, 1));
    EXPECT_TRUE(HoldsFrame(image, 1));
    EXPECT_EQ(image.GetMetadataCount(), 0);
}

TEST_F(DiskRoundTrip, ApplicationTypesAreDescribedInsideTheFile) {
    CKestorMetadataManager settings;
    ASSERT_TRUE(settings.SetSequenceMetadataDynamic(true));
    ASSERT_TRUE(settings.RegisterMetadataType(KMetadataInfo(
        0x80000001u, u"Gain", u"Sensor gain", eKMetadataUnsignedInteger, 4, u"gain %u")));
    const std::string path = File("types.seq");
    Record(path, FrameSpec{16, 16, 8, eKFormatMono, 64}, 1, [](KImage& frame, uint32_t) {
        const uint32_t value = 7;
        frame.AddMetadata(KMetadata(0x80000001u, &value, 4));
    });
    const SequenceHeaderData header = HeaderOnDisk(path);
    EXPECT_EQ(header.frameMetadataSize, 4u + 8 + 4) << "sized from the first frame's items";
    ASSERT_GT(header.typeSectionSize, 0u);
    EXPECT_EQ(header.typeSectionSize % 512, 0u);

    // Another machine's store does not know the type: the file's own description names it.
    setenv("KESTOR_REGISTRY", File("other-registry.db").c_str(), 1);
    CKestorSequencerDisk reader;
    ASSERT_TRUE(OpenForReading(reader, path));
    KImage image;
    ASSERT_TRUE(reader.Read(&image, 1));
    ASSERT_EQ(image.GetMetadataCount(), 1);
    EXPECT_EQ(ShownItem(image, 0), "gain 7");
}

// With 4096-byte sectors the slot is longer than a frame's 512-byte-rounded buffer: the whole
// sectors go from the buffer, the rest through the tail.
TEST_F(DiskRoundTrip, SlotsLongerThanTheFrameBufferOnLargeSectors) {
    CKestorMetadataManager settings;
    ASSERT_TRUE(settings.SetSequenceMetadataDynamic(false));
    for (const FrameSpec& spec : {FrameSpec{100, 10, 8, eKFormatMono},          // 1000 bytes
                                  FrameSpec{100, 30, 8, eKFormatMono, 100},     // with metadata
                                  FrameSpec{30, 20, 24, eKFormatBGRPlanar}}) {  // assembled
        SCOPED_TRACE(spec.width * spec.height * spec.bitDepth / 8);
        const std::string path = File("large-sectors.seq");
        const auto edit = [&](KImage& frame, uint32_t seed) {
            if (spec.extraBytes > 0) AddInteger(frame, static_cast<int32_t>(seed));
        };
        Record(path, spec, 4, edit, 4096);
        const SequenceHeaderData header = HeaderOnDisk(path);
        EXPECT_EQ(header.trueImageSize, 4096u);
        EXPECT_EQ((1024 + header.typeSectionSize) % 4096, 0u) << "the first slot is aligned";
        EXPECT_EQ(FileBytes(path).size(), 1024u + header.typeSectionSize + 4 * 4096);
        ExpectFrames(path, 4);

        CKestorSequencerDisk reader;
        ASSERT_TRUE(OpenForReading(reader, path));
        EXPECT_TRUE(reader.IsDirect());
        KImage image = MakeFrame(spec, 50);  // buffer shorter than the slot, kept as it is
        const uint8_t* buffer = image.GetRawImageData();
        ASSERT_TRUE(reader.Read(&image, 3));
        EXPECT_EQ(image.GetRawImageData(), buffer);
        EXPECT_TRUE(HoldsFrame(image, 3));
        if (spec.extraBytes > 0) {
            ASSERT_EQ(image.GetMetadataCount(), 1);
            EXPECT_EQ(ShownItem(image, 0), "3");
        }
    }
    // Above 32 MiB the frame moves in two pieces, the second with the tail.
    Record(File("large.seq"), FrameSpec{4100, 8200, 8, eKFormatMono}, 2, {}, 4096);
    ExpectFrames(File("large.seq"), 2);
}

// A file laid out for sectors that do not divide into this volume's is read and appended
// through the page cache instead of being refused.
TEST_F(DiskRoundTrip, FilesLaidOutForAnotherSectorSizeAreUsedBuffered) {
    const FrameSpec spec{100, 10, 8, eKFormatMono};
    const std::string path = File("foreign.seq");
    Record(path, spec, 3);
    const std::vector<uint8_t> recorded = FileBytes(path);  // repacked into 1008-byte slots
    std::vector<uint8_t> bytes(recorded.begin(), recorded.begin() + 1024);
    for (size_t slot = 0; slot < 3; ++slot) {
        const auto start = recorded.begin() + 1024 + slot * 1024;
        bytes.insert(bytes.end(), start, start + 1008);
    }
    WriteFileBytes(path, bytes);
    PatchHeader(path, [](SequenceHeaderData& header) { header.trueImageSize = 1008; });
    ExpectFrames(path, 3);

    CKestorSequencerDisk appender;
    bool readOnly = false, upgraded = false;
    ASSERT_TRUE(appender.Open(path, readOnly, upgraded));
    EXPECT_FALSE(readOnly);
    EXPECT_FALSE(appender.IsDirect());
    KImage frame = MakeFrame(spec, 4);
    ASSERT_TRUE(appender.Write(&frame));
    CKestorSequencerDisk second;  // still the only writer through the buffered descriptor
    ASSERT_TRUE(second.Open(path, readOnly, upgraded));
    EXPECT_TRUE(readOnly);
    second.Close();
    ASSERT_TRUE(appender.Close());
    EXPECT_EQ(FileBytes(path).size(), 1024u + 4 * 1008);
    ExpectFrames(path, 4);
}
