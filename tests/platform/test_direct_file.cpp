#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <utility>

#include "platform/AlignedMemory.h"
#include "platform/DirectFile.h"
#include "support/TempDir.h"

using kestor::AlignedBuffer;
using kestor::DirectFile;
using kestor::FileOpenOptions;
using kestor::test::TempDir;

namespace {

FileOpenOptions Writer(bool truncate = false) {
    FileOpenOptions options;
    options.write = true;
    options.create = true;
    options.truncate = truncate;
    return options;
}

FileOpenOptions Reader() {
    return FileOpenOptions{};
}

bool IsPowerOfTwo(uint32_t value) {
    return value != 0 && (value & (value - 1)) == 0;
}

// A buffer of `bytes` filled with a pattern that differs per `seed`, aligned for direct I/O.
AlignedBuffer Pattern(size_t bytes, uint8_t seed) {
    AlignedBuffer buffer(bytes);
    for (size_t i = 0; i < bytes; ++i) buffer.Data()[i] = static_cast<uint8_t>(i * 7 + seed);
    return buffer;
}

bool SameBytes(const AlignedBuffer& a, const AlignedBuffer& b) {
    return a.Size() == b.Size() && std::memcmp(a.Data(), b.Data(), a.Size()) == 0;
}

// Writes three sectors with a hole of one sector in front, reads them back and compares.
void ExpectRoundTrip(DirectFile& file) {
    const uint32_t sector = file.OffsetAlignment();
    const AlignedBuffer written = Pattern(3 * sector, 11);
    ASSERT_TRUE(file.WriteAt(written.Data(), written.Size(), sector)) << file.LastErrno();
    EXPECT_EQ(file.Size(), 4u * sector);

    AlignedBuffer read(3 * sector);
    size_t done = 0;
    ASSERT_TRUE(file.ReadAt(read.Data(), read.Size(), sector, &done)) << file.LastErrno();
    EXPECT_EQ(done, read.Size());
    EXPECT_TRUE(SameBytes(read, written));

    AlignedBuffer hole(sector);
    ASSERT_TRUE(file.ReadAt(hole.Data(), sector, 0));
    for (size_t i = 0; i < sector; ++i) ASSERT_EQ(hole.Data()[i], 0) << "the hole reads as zeros";
}

bool KernelAcceptsDirectIo(const std::string& path) {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_DIRECT | O_CLOEXEC, 0644);
    if (fd >= 0) close(fd);
    unlink(path.c_str());
    return fd >= 0;
}

}  // namespace

TEST(DirectFile, DirectRoundTripOnDiskVolume) {
    TempDir dir;  // the build tree, on a real disk
    const std::string path = dir.File("frames.seq");
    DirectFile file;
    ASSERT_EQ(file.Open(path, Writer()), 0);
    EXPECT_TRUE(file.IsOpen());
    EXPECT_TRUE(file.IsWritable());
    EXPECT_TRUE(file.IsDirect()) << "a disk volume must be written without the page cache";
    EXPECT_TRUE(IsPowerOfTwo(file.OffsetAlignment())) << file.OffsetAlignment();
    EXPECT_TRUE(IsPowerOfTwo(file.MemoryAlignment())) << file.MemoryAlignment();
    EXPECT_LE(file.MemoryAlignment(), kestor::kDirectIoAlignment);
    EXPECT_EQ(file.OffsetAlignment(), kestor::VolumeSectorSize(path));
    ExpectRoundTrip(file);
    file.Close();
    EXPECT_FALSE(file.IsOpen());

    // The data is on disk, not only in the handle: a new reader sees it.
    DirectFile reader;
    ASSERT_EQ(reader.Open(path, Reader()), 0);
    EXPECT_FALSE(reader.IsWritable());
    const uint32_t sector = reader.OffsetAlignment();
    AlignedBuffer read(3 * sector);
    ASSERT_TRUE(reader.ReadAt(read.Data(), read.Size(), sector));
    EXPECT_TRUE(SameBytes(read, Pattern(3 * sector, 11)));
    EXPECT_FALSE(reader.WriteAt(read.Data(), sector, 0));
    EXPECT_EQ(reader.LastErrno(), EBADF);
}

TEST(DirectFile, TmpfsRoundTripsWhateverModeTheKernelAllows) {
    TempDir dir("/dev/shm");
    const std::string path = dir.File("frames.seq");
    const bool kernelDirect = KernelAcceptsDirectIo(dir.File("probe"));
    DirectFile file;
    ASSERT_EQ(file.Open(path, Writer()), 0);
    // Older kernels refuse O_DIRECT on tmpfs (buffered fall-back), 6.6 and later accept it.
    EXPECT_EQ(file.IsDirect(), kernelDirect);
    EXPECT_TRUE(IsPowerOfTwo(file.OffsetAlignment()));
    EXPECT_TRUE(IsPowerOfTwo(file.MemoryAlignment()));
    ExpectRoundTrip(file);
    EXPECT_TRUE(file.Flush());
}

TEST(DirectFile, FallsBackToBufferedWhereDirectIoIsRefused) {
    // procfs refuses O_DIRECT at open on every kernel.
    DirectFile file;
    ASSERT_EQ(file.Open("/proc/version", Reader()), 0);
    EXPECT_FALSE(file.IsDirect());
    char text[7] = {};  // read at text + 1, deliberately unaligned: buffered mode takes any request
    ASSERT_TRUE(file.ReadAt(text + 1, 5, 0)) << file.LastErrno();
    EXPECT_STREQ(text + 1, "Linux");
    EXPECT_TRUE(IsPowerOfTwo(file.OffsetAlignment()));
}

TEST(DirectFile, BufferedModeTakesAnyRequestAndPersistsOnClose) {
    TempDir dir;
    const std::string path = dir.File("buffered.seq");
    FileOpenOptions options = Writer();
    options.direct = false;
    {
        DirectFile file;
        ASSERT_EQ(file.Open(path, options), 0);
        EXPECT_FALSE(file.IsDirect());
        ASSERT_TRUE(file.WriteAt("timestamp", 9, 3));
        EXPECT_EQ(file.Size(), 12u);
    }  // closed by the destructor
    DirectFile reader;
    FileOpenOptions buffered = Reader();
    buffered.direct = false;
    ASSERT_EQ(reader.Open(path, buffered), 0);
    char text[10] = {};
    ASSERT_TRUE(reader.ReadAt(text, 9, 3));
    EXPECT_STREQ(text, "timestamp");
}

TEST(DirectFile, MisalignedDirectRequestsAreRefused) {
    TempDir dir;
    DirectFile file;
    ASSERT_EQ(file.Open(dir.File("a.seq"), Writer()), 0);
    ASSERT_TRUE(file.IsDirect());
    const uint32_t sector = file.OffsetAlignment();
    AlignedBuffer buffer = Pattern(2 * sector + file.MemoryAlignment(), 3);

    EXPECT_FALSE(file.WriteAt(buffer.Data(), sector, sector / 2)) << "offset inside a sector";
    EXPECT_EQ(file.LastErrno(), EINVAL);
    EXPECT_FALSE(file.WriteAt(buffer.Data(), sector + 1, 0)) << "length not whole sectors";
    EXPECT_EQ(file.LastErrno(), EINVAL);
    if (file.MemoryAlignment() > 1) {
        EXPECT_FALSE(file.WriteAt(buffer.Data() + 1, sector, 0)) << "buffer not aligned";
        EXPECT_EQ(file.LastErrno(), EINVAL);
    }
    EXPECT_EQ(file.Size(), 0u) << "a refused request writes nothing";

    ASSERT_TRUE(file.WriteAt(buffer.Data(), sector, 0));
    size_t done = 99;
    EXPECT_FALSE(file.ReadAt(buffer.Data(), sector, 1, &done));
    EXPECT_EQ(file.LastErrno(), EINVAL);
    EXPECT_EQ(done, 0u);
}

TEST(DirectFile, ReadingPastTheEndReportsWhatWasRead) {
    TempDir dir;
    DirectFile file;
    ASSERT_EQ(file.Open(dir.File("short.seq"), Writer()), 0);
    const uint32_t sector = file.OffsetAlignment();
    const AlignedBuffer written = Pattern(2 * sector, 5);
    ASSERT_TRUE(file.WriteAt(written.Data(), written.Size(), 0));

    AlignedBuffer read(4 * sector);
    size_t done = 0;
    EXPECT_FALSE(file.ReadAt(read.Data(), read.Size(), 0, &done));
    EXPECT_EQ(file.LastErrno(), kestor::kEndOfFileErrno);
    EXPECT_EQ(done, 2u * sector);
    EXPECT_EQ(std::memcmp(read.Data(), written.Data(), done), 0);

    EXPECT_FALSE(file.ReadAt(read.Data(), sector, 8 * sector, &done));
    EXPECT_EQ(file.LastErrno(), kestor::kEndOfFileErrno);
    EXPECT_EQ(done, 0u);

    // A file that ends inside a sector (written buffered) still reads directly up to its end.
    FileOpenOptions buffered = Writer();
    buffered.direct = false;
    DirectFile appender;
    file.Close();
    ASSERT_EQ(appender.Open(dir.File("short.seq"), buffered), 0);
    ASSERT_TRUE(appender.WriteAt("tail", 4, 2 * sector));
    appender.Close();
    ASSERT_EQ(file.Open(dir.File("short.seq"), Reader()), 0);
    ASSERT_TRUE(file.IsDirect());
    EXPECT_FALSE(file.ReadAt(read.Data(), read.Size(), 0, &done));
    EXPECT_EQ(file.LastErrno(), kestor::kEndOfFileErrno) << "not EINVAL for the ragged end";
    EXPECT_EQ(done, 2u * sector + 4);
    EXPECT_EQ(std::memcmp(read.Data() + 2 * sector, "tail", 4), 0);
}

TEST(DirectFile, TruncateShrinksAndGrows) {
    TempDir dir;
    const std::string path = dir.File("cut.seq");
    DirectFile file;
    ASSERT_EQ(file.Open(path, Writer()), 0);
    const uint32_t sector = file.OffsetAlignment();
    const AlignedBuffer written = Pattern(4 * sector, 9);
    ASSERT_TRUE(file.WriteAt(written.Data(), written.Size(), 0));

    ASSERT_TRUE(file.Truncate(sector));
    EXPECT_EQ(file.Size(), sector);
    AlignedBuffer read(sector);
    EXPECT_FALSE(file.ReadAt(read.Data(), sector, sector));
    EXPECT_EQ(file.LastErrno(), kestor::kEndOfFileErrno);

    ASSERT_TRUE(file.Truncate(2 * sector));
    ASSERT_TRUE(file.ReadAt(read.Data(), sector, sector));
    for (size_t i = 0; i < sector; ++i) ASSERT_EQ(read.Data()[i], 0) << "grown part is zero";
    ASSERT_TRUE(file.ReadAt(read.Data(), sector, 0));
    EXPECT_EQ(std::memcmp(read.Data(), written.Data(), sector), 0) << "kept part is intact";
    file.Close();

    ASSERT_EQ(file.Open(path, Writer(/*truncate=*/true)), 0);
    EXPECT_EQ(file.Size(), 0u);
    DirectFile reader;
    EXPECT_FALSE(reader.Truncate(0)) << "nothing open";
}

TEST(DirectFile, OnlyOneWriterButReadersAreWelcome) {
    TempDir dir;
    const std::string path = dir.File("recording.seq");
    DirectFile first;
    ASSERT_EQ(first.Open(path, Writer()), 0);
    const uint32_t sector = first.OffsetAlignment();
    ASSERT_TRUE(first.WriteAt(Pattern(sector, 1).Data(), sector, 0));
    EXPECT_TRUE(DirectFile::IsLockedForWriting(path));

    DirectFile second;
    EXPECT_EQ(second.Open(path, Writer()), EWOULDBLOCK) << "second writer in the same process";
    EXPECT_FALSE(second.IsOpen());
    EXPECT_EQ(second.Open(path, Writer(/*truncate=*/true)), EWOULDBLOCK);
    EXPECT_EQ(first.Size(), sector) << "a refused writer must not truncate the recording";

    DirectFile reader;
    ASSERT_EQ(reader.Open(path, Reader()), 0) << "the fall-back of a refused writer";
    AlignedBuffer read(sector);
    EXPECT_TRUE(reader.ReadAt(read.Data(), sector, 0));
    EXPECT_TRUE(SameBytes(read, Pattern(sector, 1)));

    // The lock travels with the handle.
    DirectFile moved = std::move(first);
    EXPECT_FALSE(first.IsOpen());
    EXPECT_TRUE(moved.IsWritable());
    EXPECT_EQ(second.Open(path, Writer()), EWOULDBLOCK);

    moved.Close();
    EXPECT_FALSE(DirectFile::IsLockedForWriting(path));
    EXPECT_EQ(second.Open(path, Writer()), 0) << "free again once the first writer closed";
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
    if (child == 0) {
        // The child reports through its exit code and allocates nothing.
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
        if (file.LastErrno() != EFBIG || done != 0) _exit(16);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
    ASSERT_EQ(WEXITSTATUS(status), 0) << "failed step in the child";

    DirectFile reader;
    ASSERT_EQ(reader.Open(path, Reader()), 0);
    EXPECT_EQ(reader.Size(), limit);
    AlignedBuffer read(limit);
    ASSERT_TRUE(reader.ReadAt(read.Data(), limit, 0));
    EXPECT_TRUE(SameBytes(read, data)) << "data before the limit survives";
}

TEST(DirectFile, IgnoringTheSizeSignalLeavesAnApplicationHandlerAlone) {
    struct sigaction saved = {};
    ASSERT_EQ(sigaction(SIGXFSZ, nullptr, &saved), 0);

    struct sigaction own = {};
    own.sa_handler = [](int) {};
    sigemptyset(&own.sa_mask);
    ASSERT_EQ(sigaction(SIGXFSZ, &own, nullptr), 0);
    kestor::IgnoreFileSizeSignal();
    struct sigaction now = {};
    sigaction(SIGXFSZ, nullptr, &now);
    EXPECT_EQ(now.sa_handler, own.sa_handler);

    signal(SIGXFSZ, SIG_DFL);
    kestor::IgnoreFileSizeSignal();
    kestor::IgnoreFileSizeSignal();
    sigaction(SIGXFSZ, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_IGN);

    sigaction(SIGXFSZ, &saved, nullptr);
}

TEST(DirectFile, OpenFailuresAreErrnoValues) {
    TempDir dir;
    DirectFile file;
    EXPECT_EQ(file.Open(dir.File("missing.seq"), Reader()), ENOENT);
    EXPECT_EQ(file.Open(dir.File("missing.seq"), FileOpenOptions{.write = true}), ENOENT)
        << "no create flag";
    EXPECT_EQ(file.Open("", Writer()), ENOENT);
    EXPECT_EQ(file.Open(dir.Path().string(), Writer()), EISDIR);
    EXPECT_FALSE(file.IsOpen());
    EXPECT_EQ(file.Size(), 0u);
    char byte = 0;
    EXPECT_FALSE(file.ReadAt(&byte, 1, 0));
    EXPECT_EQ(file.LastErrno(), EBADF);
}

TEST(DirectFile, SectorSizeOfPathsNotCreatedYet) {
    TempDir dir;
    const uint32_t folder = kestor::VolumeSectorSize(dir.Path().string());
    EXPECT_TRUE(IsPowerOfTwo(folder));
    EXPECT_EQ(kestor::VolumeSectorSize(dir.File("new/deeper/file.seq")), folder);
    EXPECT_TRUE(IsPowerOfTwo(kestor::VolumeSectorSize("")));
    EXPECT_TRUE(IsPowerOfTwo(kestor::VolumeSectorSize("relative-missing/file.seq")));
    EXPECT_TRUE(IsPowerOfTwo(kestor::VolumeSectorSize("/proc/version")));
}

TEST(DirectFile, ExistenceAndRemoval) {
    TempDir dir;
    const std::string path = dir.File("x.seq");
    EXPECT_FALSE(kestor::FileExists(path));
    EXPECT_FALSE(kestor::FileExists(dir.Path().string())) << "a folder is not a file";
    {
        DirectFile file;
        ASSERT_EQ(file.Open(path, Writer()), 0);
    }
    EXPECT_TRUE(kestor::FileExists(path));
    EXPECT_EQ(kestor::RemoveFile(path), 0);
    EXPECT_FALSE(kestor::FileExists(path));
    EXPECT_EQ(kestor::RemoveFile(path), ENOENT);
}
