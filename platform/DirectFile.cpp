#include "platform/DirectFile.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdint>
#include <limits>
#include <utility>

namespace kestor {
namespace {

int OpenRetrying(const char* path, int flags) {
    int fd;
    do {
        fd = ::open(path, flags, 0666);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

// An open-file-description lock: unlike a process-wide POSIX lock it also excludes a second
// open of the same file inside this process, and it goes away with the descriptor.
int LockForWriting(int fd) {
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0;  // the whole file, however long it grows
    if (fcntl(fd, F_OFD_SETLK, &lock) == 0) return 0;
    return (errno == EAGAIN || errno == EACCES) ? EWOULDBLOCK : errno;
}

bool RangeFitsOffT(size_t bytes, uint64_t offset) {
    constexpr uint64_t kMax = static_cast<uint64_t>(std::numeric_limits<off_t>::max());
    return offset <= kMax && bytes <= kMax - offset;
}

}  // namespace

DirectFile::~DirectFile() {
    Close();
}

DirectFile::DirectFile(DirectFile&& other) noexcept {
    *this = std::move(other);
}

DirectFile& DirectFile::operator=(DirectFile&& other) noexcept {
    if (this != &other) {
        Close();
        fd_ = std::exchange(other.fd_, -1);
        writable_ = std::exchange(other.writable_, false);
        direct_ = std::exchange(other.direct_, false);
        unflushedBufferedWrites_ = std::exchange(other.unflushedBufferedWrites_, false);
        offsetAlignment_ = other.offsetAlignment_;
        memoryAlignment_ = other.memoryAlignment_;
        lastErrno_ = other.lastErrno_;
    }
    return *this;
}

int DirectFile::Open(const std::string& utf8Path, const FileOpenOptions& options) {
    Close();
    lastErrno_ = 0;
    if (utf8Path.empty()) return lastErrno_ = ENOENT;

    int flags = O_CLOEXEC | (options.write ? O_RDWR : O_RDONLY);
    if (options.create) flags |= O_CREAT;
    // No O_TRUNC here: truncating before the writer lock is held would destroy a recording
    // that another writer is still making.
    bool direct = options.direct;
    int fd = OpenRetrying(utf8Path.c_str(), flags | (direct ? O_DIRECT : 0));
    if (fd < 0 && direct && errno == EINVAL) {
        // The file system does not do direct I/O: record through the page cache instead and
        // make the data durable with Flush/Close.
        direct = false;
        fd = OpenRetrying(utf8Path.c_str(), flags);
    }
    if (fd < 0) return lastErrno_ = errno;

    if (options.write && options.exclusiveWriter) {
        if (int error = LockForWriting(fd)) {
            ::close(fd);
            return lastErrno_ = error;
        }
    }
    if (options.write && options.truncate && ftruncate(fd, 0) != 0) {
        const int error = errno;
        ::close(fd);
        return lastErrno_ = error;
    }

    const DirectIoAlignment alignment = DirectIoAlignmentOfFile(fd);
    fd_ = fd;
    writable_ = options.write;
    direct_ = direct;
    unflushedBufferedWrites_ = false;
    offsetAlignment_ = alignment.offset;
    memoryAlignment_ = alignment.memory;
    return 0;
}

void DirectFile::Close() {
    if (fd_ < 0) return;
    if (unflushedBufferedWrites_ && fdatasync(fd_) != 0) lastErrno_ = errno;
    // Linux releases the descriptor even when close reports an error, so never retry.
    if (::close(fd_) != 0) lastErrno_ = errno;
    fd_ = -1;
    writable_ = false;
    direct_ = false;
    unflushedBufferedWrites_ = false;
}

bool DirectFile::Fail(int error) {
    lastErrno_ = error;
    return false;
}

bool DirectFile::IsAligned(const void* buffer, size_t bytes, uint64_t offset) const {
    return offset % offsetAlignment_ == 0 && bytes % offsetAlignment_ == 0 &&
           reinterpret_cast<uintptr_t>(buffer) % memoryAlignment_ == 0;
}

bool DirectFile::ReadAt(void* buffer, size_t bytes, uint64_t offset, size_t* done) {
    size_t total = 0;
    if (done) *done = 0;
    if (fd_ < 0) return Fail(EBADF);
    if (!RangeFitsOffT(bytes, offset)) return Fail(EINVAL);
    if (direct_ && !IsAligned(buffer, bytes, offset)) return Fail(EINVAL);

    auto* cursor = static_cast<char*>(buffer);
    bool ok = true;
    while (total < bytes) {
        const ssize_t got =
            pread(fd_, cursor + total, bytes - total, static_cast<off_t>(offset + total));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            ok = Fail(errno);
            break;
        }
        total += static_cast<size_t>(got);
        // A short read normally means the end of the file; a direct read must not retry there,
        // since the remainder would start at an unaligned offset.
        if (got == 0 || (total < bytes && offset + total >= Size())) {
            ok = Fail(kEndOfFileErrno);
            break;
        }
    }
    if (done) *done = total;
    return ok;
}

bool DirectFile::WriteAt(const void* buffer, size_t bytes, uint64_t offset, size_t* done) {
    size_t total = 0;
    if (done) *done = 0;
    if (fd_ < 0) return Fail(EBADF);
    if (!writable_) return Fail(EBADF);
    if (!RangeFitsOffT(bytes, offset)) return Fail(EFBIG);
    if (direct_ && !IsAligned(buffer, bytes, offset)) return Fail(EINVAL);

    const auto* cursor = static_cast<const char*>(buffer);
    bool ok = true;
    while (total < bytes) {
        const ssize_t put =
            pwrite(fd_, cursor + total, bytes - total, static_cast<off_t>(offset + total));
        if (put < 0 && errno == EINTR) continue;
        if (put < 0) {
            ok = Fail(errno);
            break;
        }
        if (put == 0) {  // no progress and no reason given: do not spin
            ok = Fail(EIO);
            break;
        }
        total += static_cast<size_t>(put);
    }
    if (total > 0 && !direct_) unflushedBufferedWrites_ = true;
    if (done) *done = total;
    return ok;
}

bool DirectFile::ReadVectorAt(const IoPiece* pieces, size_t count, uint64_t offset, size_t* done) {
    return TransferVector(pieces, count, offset, false, done);
}

bool DirectFile::WriteVectorAt(const IoPiece* pieces, size_t count, uint64_t offset, size_t* done) {
    return TransferVector(pieces, count, offset, true, done);
}

bool DirectFile::TransferVector(const IoPiece* pieces, size_t count, uint64_t offset, bool write,
                                size_t* done) {
    size_t total = 0;
    if (done) *done = 0;
    if (fd_ < 0 || (write && !writable_)) return Fail(EBADF);
    if (count > kMaxIoPieces || (count > 0 && pieces == nullptr)) return Fail(EINVAL);

    iovec vector[kMaxIoPieces];
    size_t bytes = 0;
    for (size_t i = 0; i < count; ++i) {
        if (direct_ && !IsAligned(pieces[i].data, pieces[i].bytes, offset)) return Fail(EINVAL);
        if (pieces[i].bytes > std::numeric_limits<size_t>::max() - bytes) return Fail(EINVAL);
        vector[i] = {pieces[i].data, pieces[i].bytes};
        bytes += pieces[i].bytes;
    }
    if (!RangeFitsOffT(bytes, offset)) return Fail(write ? EFBIG : EINVAL);

    // A short transfer continues with the rest of the vector: skip what was done.
    iovec* cursor = vector;
    size_t left = count;
    bool ok = true;
    while (total < bytes) {
        while (left > 0 && cursor->iov_len == 0) ++cursor, --left;
        const int pieceCount = static_cast<int>(left);
        const off_t position = static_cast<off_t>(offset + total);
        const ssize_t moved = write ? pwritev(fd_, cursor, pieceCount, position)
                                    : preadv(fd_, cursor, pieceCount, position);
        if (moved < 0 && errno == EINTR) continue;
        if (moved < 0) {
            ok = Fail(errno);
            break;
        }
        total += static_cast<size_t>(moved);
        if (moved == 0 || (!write && total < bytes && offset + total >= Size())) {
            ok = Fail(write ? EIO : kEndOfFileErrno);
            break;
        }
        for (size_t skip = static_cast<size_t>(moved); skip > 0;) {
            const size_t step = skip < cursor->iov_len ? skip : cursor->iov_len;
            cursor->iov_base = static_cast<char*>(cursor->iov_base) + step;
            cursor->iov_len -= step;
            skip -= step;
            if (cursor->iov_len == 0 && left > 0 && skip > 0) ++cursor, --left;
        }
    }
    if (write && total > 0 && !direct_) unflushedBufferedWrites_ = true;
    if (done) *done = total;
    return ok;
}

bool DirectFile::Truncate(uint64_t size) {
    if (fd_ < 0 || !writable_) return Fail(EBADF);
    if (!RangeFitsOffT(0, size)) return Fail(EFBIG);
    int result;
    do {
        result = ftruncate(fd_, static_cast<off_t>(size));
    } while (result != 0 && errno == EINTR);
    if (result != 0) return Fail(errno);
    if (!direct_) unflushedBufferedWrites_ = true;
    return true;
}

uint64_t DirectFile::Size() const {
    struct stat info = {};
    if (fd_ < 0 || fstat(fd_, &info) != 0) return 0;
    return static_cast<uint64_t>(info.st_size);
}

bool DirectFile::Flush() {
    if (fd_ < 0) return Fail(EBADF);
    if (fdatasync(fd_) != 0) return Fail(errno);
    unflushedBufferedWrites_ = false;
    return true;
}

bool DirectFile::IsLockedForWriting(const std::string& utf8Path) {
    const int fd = OpenRetrying(utf8Path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct flock probe = {};
    probe.l_type = F_WRLCK;
    probe.l_whence = SEEK_SET;
    probe.l_start = 0;
    probe.l_len = 0;
    const bool locked = fcntl(fd, F_OFD_GETLK, &probe) == 0 && probe.l_type != F_UNLCK;
    ::close(fd);
    return locked;
}

bool FileExists(const std::string& utf8Path) {
    struct stat info = {};
    return stat(utf8Path.c_str(), &info) == 0 && !S_ISDIR(info.st_mode);
}

int RemoveFile(const std::string& utf8Path) {
    return unlink(utf8Path.c_str()) == 0 ? 0 : errno;
}

void IgnoreFileSizeSignal() {
    struct sigaction current = {};
    if (sigaction(SIGXFSZ, nullptr, &current) != 0) return;
    // An application's own handler also keeps the process alive (the write then fails with
    // EFBIG), so it is left in place.
    const bool isDefault = (current.sa_flags & SA_SIGINFO) == 0 && current.sa_handler == SIG_DFL;
    if (!isDefault) return;
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    sigaction(SIGXFSZ, &ignore, nullptr);
}

}  // namespace kestor
