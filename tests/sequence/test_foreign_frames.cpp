// Frames that only borrow their pixels (a grabber's buffer, shown without a copy), aligned or
// not, are recorded without writing into the borrowed memory; slot transfers that cannot read
// a whole slot say so.
#include <memory>

#include "platform/AlignedMemory.h"
#include "platform/DirectFile.h"
#include "sequence/SlotTransfer.h"
#include "sequence_test_support.h"

using namespace kestor;
using namespace kestor::test;

namespace {

constexpr size_t kGuard = 64;  // bytes behind the borrowed pixels that nobody may touch

// Borrowed memory: the pixels at `offset` from an aligned block, followed by a guard pattern.
class BorrowedPixels {
public:
    BorrowedPixels(size_t bytes, size_t offset)
        : block_(static_cast<uint8_t*>(AlignedAlloc(bytes + offset + kGuard))),
          pixels_(block_ + offset),
          bytes_(bytes) {
        std::memset(pixels_ + bytes_, 0xA5, kGuard);
    }
    ~BorrowedPixels() { AlignedFree(block_); }
    BorrowedPixels(const BorrowedPixels&) = delete;
    BorrowedPixels& operator=(const BorrowedPixels&) = delete;

    // Moves `frame` onto this memory (same pixels and timestamp).
    void Lend(KImage& frame) {
        std::memcpy(pixels_, frame.GetRawImageData(), bytes_);
        CKestorImage& image = *frame.GetImage();
        image.AttachForeignBuffer(image.Description(), pixels_, bytes_);
    }
    bool GuardIntact() const {
        return std::all_of(pixels_ + bytes_, pixels_ + bytes_ + kGuard,
                           [](uint8_t b) { return b == 0xA5; });
    }

private:
    uint8_t* block_;
    uint8_t* pixels_;
    size_t bytes_;
};

}  // namespace

TEST_F(DiskSequencerTest, BorrowedPixelsOfExactSizeAreRecorded) {
    struct Case {
        FrameSpec spec;
        size_t offset;
        uint32_t sector;
    };
    const Case cases[] = {
        {{64, 48, 8}, 0, 0},      // aligned, whole sectors: the pixels go to disk in place
        {{64, 48, 8}, 1, 0},      // unaligned: through the aligned tail
        {{100, 30, 8}, 0, 0},     // aligned but ending inside a sector
        {{100, 30, 8}, 3, 4096},  // unaligned, large sectors
    };
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(n);
        const std::string path = File("borrowed" + std::to_string(n++) + ".seq");
        const size_t bytes = size_t{c.spec.width} * c.spec.height * c.spec.bitDepth / 8;
        std::vector<std::unique_ptr<BorrowedPixels>> lent;
        Record(
            path, c.spec, 5,
            [&](KImage& frame, uint32_t) {
                lent.push_back(std::make_unique<BorrowedPixels>(bytes, c.offset));
                lent.back()->Lend(frame);
                EXPECT_FALSE(frame.GetImage()->OwnsBuffer());
            },
            c.sector);
        for (const auto& memory : lent) EXPECT_TRUE(memory->GuardIntact());
        ExpectFrames(path, 5);
    }
}

TEST_F(DiskSequencerTest, AShortSlotReadShowsZerosAndFails) {
    DirectFile file;
    FileOpenOptions options;
    options.write = options.create = options.direct = true;
    ASSERT_EQ(file.Open(File("short.bin"), options), 0);
    const uint32_t sector = file.OffsetAlignment();
    AlignedBuffer frame(2 * sector);
    std::memset(frame.Data(), 0x42, frame.Size());
    ASSERT_TRUE(file.WriteAt(frame.Data(), sector, 0));  // only the first sector of the slot
    SlotTransfer transfer;
    EXPECT_FALSE(transfer.Read(file, 0, 2 * sector, frame.Data(), frame.Size()));
    for (size_t i = 0; i < frame.Size(); ++i) ASSERT_EQ(frame.Data()[i], 0) << i;
}
