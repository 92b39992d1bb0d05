// The slot transfer moves frames in place where it can and through its tail where it must;
// the bytes on disk are the same either way.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "platform/AlignedMemory.h"
#include "platform/DirectFile.h"
#include "sequence/SlotTransfer.h"
#include "support/TempDir.h"

using namespace kestor;
using kestor::test::TempDir;

namespace {

std::vector<uint8_t> Pattern(size_t bytes, uint8_t seed) {
    std::vector<uint8_t> data(bytes);
    for (size_t i = 0; i < bytes; ++i) data[i] = static_cast<uint8_t>(i * 13 + seed);
    return data;
}

void OpenScratch(DirectFile& file, const std::string& path, bool direct) {
    FileOpenOptions options;
    options.write = options.create = true;
    options.direct = direct;
    ASSERT_EQ(file.Open(path, options), 0);
}

}  // namespace

// A slot whose buffer starts `shift` bytes into aligned memory (0: aligned, used in place;
// otherwise assembled) is written and read back the same way, and compared with the file.
TEST(SlotTransfer, AlignedAndUnalignedBuffersGiveTheSameSlot) {
    TempDir dir;
    for (bool direct : {true, false}) {
        DirectFile file;
        OpenScratch(file, dir.File(direct ? "direct.bin" : "buffered.bin"), direct);
        const uint32_t slot = 4 * file.OffsetAlignment();
        const size_t bufferBytes = 2 * file.OffsetAlignment() + 100;  // not whole sectors
        const uint64_t offset = 3 * uint64_t{slot};
        for (size_t shift : {size_t{0}, size_t{1}, size_t{8}}) {
            SCOPED_TRACE(::testing::Message() << (direct ? "direct" : "buffered") << shift);
            const std::vector<uint8_t> head = Pattern(bufferBytes, static_cast<uint8_t>(shift));
            const std::vector<uint8_t> overflow = Pattern(300, 99);
            AlignedBuffer memory(bufferBytes + shift);
            std::memcpy(memory.Data() + shift, head.data(), head.size());
            SlotTransfer transfer;
            ASSERT_TRUE(transfer.Write(file, offset, slot, memory.Data() + shift, bufferBytes,
                                       overflow.data(), overflow.size()))
                << transfer.LastErrno();
            EXPECT_EQ(std::memcmp(memory.Data() + shift, head.data(), head.size()), 0)
                << "the caller's buffer is not changed";

            std::vector<uint8_t> expected = head;
            expected.insert(expected.end(), overflow.begin(), overflow.end());
            expected.resize(slot, 0);
            AlignedBuffer onDisk(slot);
            ASSERT_TRUE(file.ReadAt(onDisk.Data(), slot, offset));
            EXPECT_EQ(std::memcmp(onDisk.Data(), expected.data(), slot), 0);

            AlignedBuffer back(bufferBytes + shift);
            std::memset(back.Data(), 0xCC, back.Size());
            ASSERT_TRUE(transfer.Read(file, offset, slot, back.Data() + shift, bufferBytes));
            EXPECT_EQ(std::memcmp(back.Data() + shift, head.data(), head.size()), 0);
            std::vector<uint8_t> tail(overflow.size() + 10, 0xCC);
            transfer.SlotBytes(bufferBytes, tail.size(), tail.data());
            EXPECT_EQ(std::vector<uint8_t>(tail.begin(), tail.begin() + 300), overflow);
            EXPECT_EQ(tail.back(), 0);
            uint8_t beyond[4] = {1, 1, 1, 1};
            transfer.SlotBytes(slot - 2, 4, beyond);
            EXPECT_EQ(beyond[3], 0) << "outside the slot reads as zero";
        }
    }
}

TEST(SlotTransfer, AFailedReadShowsZerosAndSaysSo) {
    TempDir dir;
    DirectFile file;
    OpenScratch(file, dir.File("short.bin"), true);
    const uint32_t sector = file.OffsetAlignment();
    AlignedBuffer frame(2 * sector);
    std::memset(frame.Data(), 0x42, frame.Size());
    ASSERT_TRUE(file.WriteAt(frame.Data(), sector, 0));  // only the first sector of the slot
    SlotTransfer transfer;
    EXPECT_FALSE(transfer.Read(file, 0, 2 * sector, frame.Data(), frame.Size()));
    for (size_t i = 0; i < frame.Size(); ++i) ASSERT_EQ(frame.Data()[i], 0) << i;
}
