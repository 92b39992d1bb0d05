// Vectored transfers: several buffers that follow one another in the file, in one call.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "platform/AlignedMemory.h"
#include "platform/DirectFile.h"
#include "support/TempDir.h"

using kestor::AlignedBuffer;
using kestor::DirectFile;
using kestor::FileOpenOptions;
using kestor::IoPiece;
using kestor::test::TempDir;

namespace {

AlignedBuffer Filled(size_t bytes, uint8_t seed) {
    AlignedBuffer buffer(bytes);
    for (size_t i = 0; i < bytes; ++i) buffer.Data()[i] = static_cast<uint8_t>(i * 3 + seed);
    return buffer;
}

FileOpenOptions Writer() {
    FileOpenOptions options;
    options.write = true;
    options.create = true;
    return options;
}

}  // namespace

TEST(DirectFileVector, PiecesLandOneAfterAnotherAndComeBack) {
    TempDir dir;
    DirectFile file;
    ASSERT_EQ(file.Open(dir.File("vector.bin"), Writer()), 0);
    const uint32_t sector = file.OffsetAlignment();
    AlignedBuffer first = Filled(3 * sector, 1), second = Filled(sector, 2);
    const IoPiece out[] = {{first.Data(), first.Size()}, {nullptr, 0}, {second.Data(), sector}};
    size_t done = 0;
    ASSERT_TRUE(file.WriteVectorAt(out, 3, sector, &done)) << file.LastErrno();
    EXPECT_EQ(done, 4u * sector);
    EXPECT_EQ(file.Size(), 5u * sector);

    AlignedBuffer whole(4 * sector);
    ASSERT_TRUE(file.ReadAt(whole.Data(), whole.Size(), sector));
    EXPECT_EQ(std::memcmp(whole.Data(), first.Data(), first.Size()), 0);
    EXPECT_EQ(std::memcmp(whole.Data() + first.Size(), second.Data(), sector), 0);

    AlignedBuffer a(sector), b(3 * sector);
    const IoPiece in[] = {{a.Data(), sector}, {b.Data(), 3 * sector}};
    ASSERT_TRUE(file.ReadVectorAt(in, 2, sector, &done));
    EXPECT_EQ(done, 4u * sector);
    EXPECT_EQ(std::memcmp(a.Data(), whole.Data(), sector), 0);
    EXPECT_EQ(std::memcmp(b.Data(), whole.Data() + sector, 3 * sector), 0);
}

TEST(DirectFileVector, RefusalsAndTheEndOfTheFile) {
    TempDir dir;
    DirectFile file;
    ASSERT_EQ(file.Open(dir.File("vector.bin"), Writer()), 0);
    const uint32_t sector = file.OffsetAlignment();
    AlignedBuffer data = Filled(2 * sector, 5);
    ASSERT_TRUE(file.WriteAt(data.Data(), 2 * sector, 0));

    if (file.IsDirect()) {
        const IoPiece odd[] = {{data.Data(), sector}, {data.Data() + 1, sector}};
        EXPECT_FALSE(file.WriteVectorAt(odd, 2, 0));
        EXPECT_EQ(file.LastErrno(), EINVAL) << "every piece must be aligned";
    }
    IoPiece many[kestor::kMaxIoPieces + 1];
    for (IoPiece& piece : many) piece = {data.Data(), 0};
    EXPECT_FALSE(file.ReadVectorAt(many, kestor::kMaxIoPieces + 1, 0));
    EXPECT_EQ(file.LastErrno(), EINVAL);

    // Reading past the end stops there and tells how much came.
    AlignedBuffer a(sector), b(2 * sector);
    const IoPiece in[] = {{a.Data(), sector}, {b.Data(), 2 * sector}};
    size_t done = 0;
    EXPECT_FALSE(file.ReadVectorAt(in, 2, 0, &done));
    EXPECT_EQ(file.LastErrno(), kestor::kEndOfFileErrno);
    EXPECT_EQ(done, 2u * sector);
    EXPECT_EQ(std::memcmp(b.Data(), data.Data() + sector, sector), 0);

    DirectFile reader;
    ASSERT_EQ(reader.Open(dir.File("vector.bin"), FileOpenOptions{}), 0);
    const IoPiece out[] = {{data.Data(), sector}};
    EXPECT_FALSE(reader.WriteVectorAt(out, 1, 0));
    EXPECT_EQ(reader.LastErrno(), EBADF);
}
