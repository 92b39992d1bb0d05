// Moves one frame slot between the disk and a frame's own buffer without copying the frame.
//
// A frame buffer is a whole number of 512-byte blocks, but on volumes with larger sectors the
// slot can be longer than the buffer. The sectors that the buffer covers completely are then
// transferred straight from (or into) the buffer, and only the remaining part of the slot goes
// through a small aligned tail buffer, in the same vectored system call.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/AlignedMemory.h"
#include "platform/DirectFile.h"

namespace kestor {

// Large frames move in pieces of this size so that one transfer never ties up the disk for long.
inline constexpr size_t kMaxSlotPiece = 32u * 1024 * 1024;

class SlotTransfer {
public:
    // Writes the slot at `offset`: `buffer` holds its first `bufferBytes` bytes, `overflow` the
    // `overflowBytes` that follow, and the rest of the slot is zero. `buffer` is used in place
    // when it is aligned for the file; otherwise the slot is assembled in aligned memory.
    // False with the file's errno (LastErrno) or ENOMEM.
    bool Write(DirectFile& file, uint64_t offset, uint32_t slotSize, const uint8_t* buffer,
               size_t bufferBytes, const uint8_t* overflow = nullptr, size_t overflowBytes = 0);

    // Reads the slot at `offset`: its first min(bufferBytes, slotSize) bytes land in `buffer`,
    // the remainder is kept here (SlotBytes reaches both). Bytes that cannot be read are zero.
    // False when the slot could not be read completely.
    bool Read(DirectFile& file, uint64_t offset, uint32_t slotSize, uint8_t* buffer,
              size_t bufferBytes);
    // Copies bytes [from, from + bytes) of the slot read last; parts outside the slot are zero.
    void SlotBytes(size_t from, size_t bytes, uint8_t* out) const;

    int LastErrno() const { return lastErrno_; }

private:
    bool Prepare(size_t bytes, size_t alignment);
    bool TransferPieces(DirectFile& file, uint64_t offset, uint8_t* direct, size_t directBytes,
                        size_t tailBytes, bool write);

    AlignedBuffer tail_;
    const uint8_t* readBuffer_ = nullptr;  // the caller's buffer of the last read
    size_t readBufferBytes_ = 0;           // how much of the slot it holds
    size_t tailStart_ = 0;                 // slot offset of the tail's first byte
    size_t slotSize_ = 0;
    int lastErrno_ = 0;
};

}  // namespace kestor
