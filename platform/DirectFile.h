// Unbuffered (direct) file I/O with 64-bit positions, the way the sequencers record frames:
// transfers go straight between the caller's buffer and the disk, bypassing the page cache,
// so a camera's full rate reaches the disk without competing with cached data.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/VolumeAlignment.h"

namespace kestor {

struct FileOpenOptions {
    bool write = false;           // open for reading and writing (else reading only)
    bool create = false;          // create the file when it does not exist
    bool truncate = false;        // with write: empty the file once the writer lock is held
    bool direct = true;           // bypass the page cache where the file system allows it
    bool exclusiveWriter = true;  // with write: refuse to open while another writer holds it
};

// One buffer of a vectored transfer.
struct IoPiece {
    void* data;
    size_t bytes;
};

// Returned by ReadAt when the file ended before the request was satisfied.
inline constexpr int kEndOfFileErrno = ENODATA;

inline constexpr size_t kMaxIoPieces = 16;

class DirectFile {
public:
    DirectFile() = default;
    ~DirectFile();
    DirectFile(DirectFile&& other) noexcept;
    DirectFile& operator=(DirectFile&& other) noexcept;
    DirectFile(const DirectFile&) = delete;
    DirectFile& operator=(const DirectFile&) = delete;

    // Closes any open file first. Returns 0 or an errno value: EWOULDBLOCK when another writer
    // holds the file (the caller may then reopen it for reading only). Where the file system
    // refuses direct I/O the file is opened buffered instead; IsDirect() tells which.
    int Open(const std::string& utf8Path, const FileOpenOptions& options);
    void Close();  // makes buffered writes durable before closing

    bool IsOpen() const { return fd_ >= 0; }
    bool IsWritable() const { return writable_; }
    bool IsDirect() const { return direct_; }

    // Direct transfers must start and end on multiples of OffsetAlignment() (the volume's
    // bytes per sector) and use buffers aligned to MemoryAlignment(). Both are powers of two
    // and never 0, also in buffered mode (so callers can lay out files the same way).
    uint32_t OffsetAlignment() const { return offsetAlignment_; }
    uint32_t MemoryAlignment() const { return memoryAlignment_; }

    // Whole transfers: short transfers and interruptions are retried. On failure they return
    // false and LastErrno() tells why (ENOSPC, EFBIG, EIO...; EINVAL for a misaligned direct
    // request; kEndOfFileErrno when a read reaches the end of the file). `done`, when given,
    // receives the number of bytes transferred in any case.
    bool ReadAt(void* buffer, size_t bytes, uint64_t offset, size_t* done = nullptr);
    bool WriteAt(const void* buffer, size_t bytes, uint64_t offset, size_t* done = nullptr);
    // The same for several buffers that follow one another in the file, in one system call
    // where possible (a frame from its own buffer plus a small tail, without copying the
    // frame). In direct mode every piece must be aligned like a whole transfer. At most
    // kMaxIoPieces pieces.
    bool ReadVectorAt(const IoPiece* pieces, size_t count, uint64_t offset, size_t* done = nullptr);
    bool WriteVectorAt(const IoPiece* pieces, size_t count, uint64_t offset,
                       size_t* done = nullptr);

    bool Truncate(uint64_t size);
    uint64_t Size() const;  // 0 when closed or on failure
    bool Flush();           // data reaches the disk (needed after buffered writes)

    int LastErrno() const { return lastErrno_; }

    // True when some open file description holds the writer lock of the file.
    static bool IsLockedForWriting(const std::string& utf8Path);

private:
    bool Fail(int error);
    bool TransferVector(const IoPiece* pieces, size_t count, uint64_t offset, bool write,
                        size_t* done);
    bool IsAligned(const void* buffer, size_t bytes, uint64_t offset) const;

    int fd_ = -1;
    bool writable_ = false;
    bool direct_ = false;
    bool unflushedBufferedWrites_ = false;
    uint32_t offsetAlignment_ = 512;
    uint32_t memoryAlignment_ = 512;
    int lastErrno_ = 0;
};

bool FileExists(const std::string& utf8Path);
int RemoveFile(const std::string& utf8Path);  // 0 or an errno value

// Writing beyond the process's file-size limit must fail with EFBIG instead of killing the
// process with SIGXFSZ. Sets the signal to be ignored unless the application installed its own
// handler; safe to call any number of times.
void IgnoreFileSizeSignal();

}  // namespace kestor
