#include "sequence/SlotTransfer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kestor {

namespace {

bool IsAlignedFor(const DirectFile& file, const void* buffer) {
    return !file.IsDirect() || reinterpret_cast<uintptr_t>(buffer) % file.MemoryAlignment() == 0;
}

// How much of a caller's buffer can be transferred in place: whole sectors in direct mode,
// everything in buffered mode, nothing when the buffer is not aligned for the file.
size_t InPlaceBytes(const DirectFile& file, const uint8_t* buffer, size_t covered) {
    if (buffer == nullptr || !IsAlignedFor(file, buffer)) return 0;
    if (!file.IsDirect()) return covered;
    return covered / file.OffsetAlignment() * file.OffsetAlignment();
}

}  // namespace

bool SlotTransfer::Prepare(size_t bytes, size_t alignment) {
    if (bytes == 0) return true;
    if (tail_.Alignment() < alignment) tail_ = AlignedBuffer(0, alignment);
    if (tail_.Resize(bytes)) return true;
    lastErrno_ = ENOMEM;
    return false;
}

bool SlotTransfer::TransferPieces(DirectFile& file, uint64_t offset, uint8_t* direct,
                                  size_t directBytes, size_t tailBytes, bool write) {
    auto fail = [&] {
        lastErrno_ = file.LastErrno();
        return false;
    };
    bool tailDone = tailBytes == 0;
    for (size_t done = 0; done < directBytes;) {
        const size_t piece = std::min(kMaxSlotPiece, directBytes - done);
        const bool last = done + piece == directBytes;
        bool ok;
        if (last && !tailDone && piece + tailBytes <= kMaxSlotPiece) {
            // The end of the frame and the tail of the slot in one call.
            const IoPiece pieces[2] = {{direct + done, piece}, {tail_.Data(), tailBytes}};
            ok = write ? file.WriteVectorAt(pieces, 2, offset + done)
                       : file.ReadVectorAt(pieces, 2, offset + done);
            tailDone = true;
        } else {
            ok = write ? file.WriteAt(direct + done, piece, offset + done)
                       : file.ReadAt(direct + done, piece, offset + done);
        }
        if (!ok) return fail();
        done += piece;
    }
    for (size_t done = 0; !tailDone && done < tailBytes;) {
        const size_t piece = std::min(kMaxSlotPiece, tailBytes - done);
        const uint64_t at = offset + directBytes + done;
        const bool ok = write ? file.WriteAt(tail_.Data() + done, piece, at)
                              : file.ReadAt(tail_.Data() + done, piece, at);
        if (!ok) return fail();
        done += piece;
    }
    return true;
}

bool SlotTransfer::Write(DirectFile& file, uint64_t offset, uint32_t slotSize,
                         const uint8_t* buffer, size_t bufferBytes, const uint8_t* overflow,
                         size_t overflowBytes) {
    const size_t covered = std::min<size_t>(bufferBytes, slotSize);
    const size_t inPlace = InPlaceBytes(file, buffer, covered);
    const size_t tailBytes = slotSize - inPlace;
    if (!Prepare(tailBytes, file.MemoryAlignment())) return false;
    if (tailBytes > 0) {
        std::memset(tail_.Data(), 0, tailBytes);
        if (covered > inPlace) std::memcpy(tail_.Data(), buffer + inPlace, covered - inPlace);
        if (overflow != nullptr && bufferBytes < slotSize) {
            const size_t bytes = std::min(overflowBytes, slotSize - bufferBytes);
            std::memcpy(tail_.Data() + (bufferBytes - inPlace), overflow, bytes);
        }
    }
    // The file only reads from the buffer; the vectored interface is shared with reading.
    return TransferPieces(file, offset, const_cast<uint8_t*>(buffer), inPlace, tailBytes, true);
}

bool SlotTransfer::Read(DirectFile& file, uint64_t offset, uint32_t slotSize, uint8_t* buffer,
                        size_t bufferBytes) {
    const size_t covered = std::min<size_t>(bufferBytes, slotSize);
    const size_t inPlace = InPlaceBytes(file, buffer, covered);
    const size_t tailBytes = slotSize - inPlace;
    readBuffer_ = buffer;
    readBufferBytes_ = covered;
    tailStart_ = inPlace;
    slotSize_ = slotSize;
    if (!Prepare(tailBytes, file.MemoryAlignment())) {
        if (buffer != nullptr) std::memset(buffer, 0, covered);
        slotSize_ = covered;
        return false;
    }
    const bool ok = TransferPieces(file, offset, buffer, inPlace, tailBytes, false);
    if (!ok) {
        // A frame that cannot be read whole is shown as zeros rather than as a mix of frames.
        if (buffer != nullptr) std::memset(buffer, 0, covered);
        if (tailBytes > 0) std::memset(tail_.Data(), 0, tailBytes);
    }
    if (covered > inPlace) std::memcpy(buffer + inPlace, tail_.Data(), covered - inPlace);
    return ok;
}

void SlotTransfer::SlotBytes(size_t from, size_t bytes, uint8_t* out) const {
    for (size_t i = 0; i < bytes; ++i) {
        const size_t at = from + i;
        if (at < readBufferBytes_)
            out[i] = readBuffer_[at];
        else if (at < slotSize_)
            out[i] = tail_.Data()[at - tailStart_];
        else
            out[i] = 0;
    }
}

}  // namespace kestor
