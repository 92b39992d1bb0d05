#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <bit>
#include <string>
#include <utility>
#include <vector>

#include "platform/AlignedMemory.h"
#include "platform/DirectFile.h"
#include "support/TempDir.h"

using kestor::AlignedBuffer;
using kestor::DirectFile;
using kestor::FileOpenOptions;
using kestor::IoPiece;
using kestor::kEndOfFileErrno;
using kestor::test::TempDir;
using Bytes = std::vector<uint8_t>;

namespace {

FileOpenOptions Writer(bool truncate = false, bool direct = true) {
    return {.write = true, .create = true, .truncate = truncate, .direct = direct};
}
const FileOpenOptions kReader{};

// Aligned bytes that differ per `seed` and per sector (a period of 251 divides no sector size).
AlignedBuffer Pattern(size_t bytes, uint8_t seed) {
    AlignedBuffer buffer(bytes);
    for (size_t i = 0; i < bytes; ++i) buffer.Data()[i] = static_cast<uint8_t>(i % 251 + seed);
    return buffer;
}

Bytes Slice(const uint8_t* data, size_t bytes) {
    return Bytes(data, data + bytes);
}

// What a read delivered, also when it failed part way.
Bytes ReadBytes(DirectFile& file, size_t bytes, uint64_t offset) {
    AlignedBuffer buffer(bytes);
    size_t done = 0;
    file.ReadAt(buffer.Data(), bytes, offset, &done);
    return Slice(buffer.Data(), done);
}

// 0 for a transfer that succeeded, else the reason it failed.
int Errno(const DirectFile& file, bool succeeded) {
    return succeeded ? 0 : file.LastErrno();
}

class DirectFileTest : public ::testing::Test {
protected:
    // Opens `name` for writing in the scratch folder (the build tree, on a real disk).
    void OpenWriter(const char* name = "frames.seq") {
        path_ = dir_.File(name);
        ASSERT_EQ(file_.Open(path_, Writer()), 0);
        sector_ = file_.OffsetAlignment();
    }
    TempDir dir_;
    std::string path_;
    DirectFile file_;
    uint32_t sector_ = 0;
};

}  // namespace

TEST_F(DirectFileTest, DirectRoundTripOnADiskVolumeReachesTheDiskAndProcfsFallsBack) {
    OpenWriter();
    EXPECT_TRUE(file_.IsDirect()) << "a disk volume must be written without the page cache";
    EXPECT_EQ(sector_, kestor::VolumeSectorSize(path_));
    EXPECT_TRUE(std::has_single_bit(sector_) && std::has_single_bit(file_.MemoryAlignment()));
    EXPECT_LE(file_.MemoryAlignment(), kestor::kDirectIoAlignment);
    // Three sectors behind a one-sector hole.
    const AlignedBuffer written = Pattern(3 * sector_, 11);
    ASSERT_EQ(Errno(file_, file_.WriteAt(written.Data(), written.Size(), sector_)), 0);
    EXPECT_EQ(file_.Size(), 4u * sector_);
    EXPECT_TRUE(file_.Flush());
    file_.Close();

    DirectFile reader;  // a new handle sees the data
    ASSERT_EQ(reader.Open(path_, kReader), 0);
    EXPECT_FALSE(reader.IsWritable());
    EXPECT_EQ(ReadBytes(reader, 3 * sector_, sector_), Slice(written.Data(), 3 * sector_));
    EXPECT_EQ(ReadBytes(reader, sector_, 0), Bytes(sector_, 0)) << "the hole reads as zeros";
    EXPECT_EQ(Errno(reader, reader.WriteAt(written.Data(), sector_, 0)), EBADF);

    // procfs refuses O_DIRECT; the buffered fall-back takes an unaligned request.
    ASSERT_EQ(reader.Open("/proc/version", kReader), 0);
    EXPECT_FALSE(reader.IsDirect());
    char text[7] = {};
    ASSERT_EQ(Errno(reader, reader.ReadAt(text + 1, 5, 0)), 0);
    EXPECT_STREQ(text + 1, "Linux");
}

TEST_F(DirectFileTest, TruncateAndReadsPastTheEndAlsoAtARaggedEnd) {
    OpenWriter();
    const AlignedBuffer written = Pattern(4 * sector_, 5);
    ASSERT_EQ(Errno(file_, file_.WriteAt(written.Data(), written.Size(), 0)), 0);
    ASSERT_TRUE(file_.Truncate(sector_));
    ASSERT_TRUE(file_.Truncate(2 * sector_));
    Bytes expected = Slice(written.Data(), sector_);
    expected.resize(2 * sector_, 0);  // the grown part reads as zeros
    EXPECT_EQ(ReadBytes(file_, 4 * sector_, 0), expected);
    EXPECT_EQ(file_.LastErrno(), kEndOfFileErrno);
    EXPECT_TRUE(ReadBytes(file_, sector_, 8 * sector_).empty());
    EXPECT_EQ(file_.LastErrno(), kEndOfFileErrno);

    // A file that ends inside a sector (written buffered) still reads directly up to its end.
    ASSERT_EQ(file_.Open(path_, Writer(false, /*direct=*/false)), 0);
    ASSERT_EQ(Errno(file_, file_.WriteAt("tail", 4, 2 * sector_)), 0);
    ASSERT_EQ(file_.Open(path_, kReader), 0);
    ASSERT_TRUE(file_.IsDirect());
    expected.insert(expected.end(), {'t', 'a', 'i', 'l'});
    EXPECT_EQ(ReadBytes(file_, 4 * sector_, 0), expected);
    EXPECT_EQ(file_.LastErrno(), kEndOfFileErrno) << "not EINVAL for the ragged end";

    ASSERT_EQ(file_.Open(path_, Writer(/*truncate=*/true)), 0);
    EXPECT_EQ(file_.Size(), 0u);
    EXPECT_FALSE(DirectFile().Truncate(0)) << "nothing open";
}

TEST_F(DirectFileTest, OnlyOneWriterButReadersAreWelcome) {
    OpenWriter();
    const AlignedBuffer data = Pattern(sector_, 1);
    ASSERT_EQ(Errno(file_, file_.WriteAt(data.Data(), sector_, 0)), 0);
    EXPECT_TRUE(DirectFile::IsLockedForWriting(path_));

    DirectFile second, reader;  // a second writer in the same process
    EXPECT_EQ(second.Open(path_, Writer(/*truncate=*/true)), EWOULDBLOCK);
    EXPECT_EQ(file_.Size(), sector_) << "a refused writer must not truncate the recording";
    ASSERT_EQ(reader.Open(path_, kReader), 0) << "the fall-back of a refused writer";
    EXPECT_EQ(ReadBytes(reader, sector_, 0), Slice(data.Data(), sector_));

    DirectFile moved = std::move(file_);  // the lock travels with the handle
    EXPECT_EQ(second.Open(path_, Writer()), EWOULDBLOCK);
    moved.Close();
    EXPECT_FALSE(DirectFile::IsLockedForWriting(path_));
    EXPECT_EQ(second.Open(path_, Writer()), 0) << "free again once the first writer closed";
    EXPECT_TRUE(reader.IsOpen()) << "readers never held the lock";
}

TEST(DirectFile, WritingPastTheFileSizeLimitGivesEfbigNotDeath) {
    TempDir dir;
    const std::string path = dir.File("limited.seq");
    const uint32_t sector = kestor::VolumeSectorSize(path);
    const rlim_t limit = 16 * sector;
    const AlignedBuffer data = Pattern(limit, 42);  // allocated before forking

    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {  // reports through its exit code and allocates nothing
        const rlimit fileSize = {limit, limit};
        if (setrlimit(RLIMIT_FSIZE, &fileSize) != 0) _exit(10);
        kestor::IgnoreFileSizeSignal();
        DirectFile file;
        if (file.Open(path, Writer()) != 0) _exit(11);
        if (!file.WriteAt(data.Data(), limit, 0)) _exit(12);
        size_t done = 99;
        if (file.WriteAt(data.Data(), 2 * sector, limit - sector, &done)) _exit(13);
        if (file.LastErrno() != EFBIG || done != sector) _exit(14);
        if (file.WriteAt(data.Data(), sector, limit, &done)) _exit(15);
        _exit(file.LastErrno() != EFBIG || done != 0 ? 16 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
    ASSERT_EQ(WEXITSTATUS(status), 0) << "failed step in the child";

    // Earlier data survives; the refused write still filled the file up to the limit.
    DirectFile reader;
    ASSERT_EQ(reader.Open(path, kReader), 0);
    Bytes expected = Slice(data.Data(), limit - sector);
    expected.insert(expected.end(), data.Data(), data.Data() + sector);
    EXPECT_EQ(ReadBytes(reader, 2 * limit, 0), expected);

    // Ignoring the signal leaves an application's own handler alone.
    struct sigaction saved = {}, own = {}, now = {};
    ASSERT_EQ(sigaction(SIGXFSZ, nullptr, &saved), 0);
    own.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGXFSZ, &own, nullptr), 0);
    kestor::IgnoreFileSizeSignal();
    sigaction(SIGXFSZ, nullptr, &now);
    EXPECT_EQ(now.sa_handler, own.sa_handler);
    sigaction(SIGXFSZ, &saved, nullptr);
}

TEST_F(DirectFileTest, OpenFailuresExistenceRemovalAndSectorSizesOfMissingPaths) {
    const std::string missing = dir_.File("new/deeper/file.seq");
    EXPECT_EQ(file_.Open(missing, kReader), ENOENT);
    EXPECT_EQ(file_.Open(dir_.File("x.seq"), {.write = true}), ENOENT) << "no create flag";
    EXPECT_EQ(file_.Open("", Writer()), ENOENT);
    EXPECT_EQ(file_.Open(dir_.Path().string(), Writer()), EISDIR);
    char byte = 0;
    EXPECT_EQ(Errno(file_, file_.ReadAt(&byte, 1, 0)), EBADF);

    // A path not created yet asks its folder's volume; odd paths still give a power of two.
    EXPECT_EQ(kestor::VolumeSectorSize(missing), kestor::VolumeSectorSize(dir_.Path().string()));
    EXPECT_TRUE(std::has_single_bit(kestor::VolumeSectorSize("relative-missing/file.seq")));

    EXPECT_FALSE(kestor::FileExists(dir_.Path().string())) << "a folder is not a file";
    OpenWriter("x.seq");
    EXPECT_TRUE(kestor::FileExists(path_));
    EXPECT_EQ(kestor::RemoveFile(path_), 0);
    EXPECT_EQ(kestor::RemoveFile(path_), ENOENT);
}

TEST_F(DirectFileTest, VectoredPiecesLandInOrderAndMisalignedRequestsAreRefused) {
    OpenWriter();
    AlignedBuffer first = Pattern(3 * sector_, 1), second = Pattern(sector_, 2);
    const IoPiece out[] = {{first.Data(), first.Size()}, {nullptr, 0}, {second.Data(), sector_}};
    size_t done = 0;
    ASSERT_EQ(Errno(file_, file_.WriteVectorAt(out, 3, sector_, &done)), 0);
    EXPECT_EQ(done, 4u * sector_);
    Bytes whole = Slice(first.Data(), 3 * sector_);
    whole.insert(whole.end(), second.Data(), second.Data() + sector_);
    EXPECT_EQ(ReadBytes(file_, 4 * sector_, sector_), whole);

    AlignedBuffer a(sector_), b(3 * sector_);
    const IoPiece in[] = {{a.Data(), sector_}, {b.Data(), 3 * sector_}};
    ASSERT_EQ(Errno(file_, file_.ReadVectorAt(in, 2, sector_, &done)), 0);
    EXPECT_EQ(Slice(a.Data(), sector_), Bytes(whole.begin(), whole.begin() + sector_));
    EXPECT_EQ(Slice(b.Data(), 3 * sector_), Bytes(whole.begin() + sector_, whole.end()));

    // Past the end a vectored read stops and tells how much came.
    ASSERT_TRUE(file_.Truncate(2 * sector_));
    EXPECT_EQ(Errno(file_, file_.ReadVectorAt(in, 2, 0, &done)), kEndOfFileErrno);
    EXPECT_EQ(done, 2u * sector_);

    // Direct requests misaligned in offset, length or memory are refused and transfer nothing;
    // so are too many pieces.
    ASSERT_TRUE(file_.IsDirect());
    Bytes kept(sector_, 0);  // the hole, then the first sector of the first piece
    kept.insert(kept.end(), whole.begin(), whole.begin() + sector_);
    const IoPiece misaligned[] = {{first.Data(), sector_}, {first.Data() + 1, sector_}};
    EXPECT_EQ(Errno(file_, file_.WriteAt(first.Data(), sector_, sector_ / 2)), EINVAL);
    EXPECT_EQ(Errno(file_, file_.WriteAt(first.Data(), sector_ + 1, 0)), EINVAL);
    if (file_.MemoryAlignment() > 1) {
        EXPECT_EQ(Errno(file_, file_.WriteAt(first.Data() + 1, sector_, 0)), EINVAL);
    }
    EXPECT_EQ(Errno(file_, file_.WriteVectorAt(misaligned, 2, 0)), EINVAL);
    EXPECT_EQ(ReadBytes(file_, 4 * sector_, 0), kept);
    EXPECT_TRUE(ReadBytes(file_, sector_, 1).empty());
    EXPECT_EQ(file_.LastErrno(), EINVAL);
    IoPiece many[kestor::kMaxIoPieces + 1];
    for (IoPiece& piece : many) piece = {first.Data(), 0};
    EXPECT_EQ(Errno(file_, file_.ReadVectorAt(many, kestor::kMaxIoPieces + 1, 0)), EINVAL);
}
