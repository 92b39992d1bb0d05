#include "sequence/CKestorSequencerDisk.h"

#include <algorithm>
#include <cstring>

#include "platform/WideString.h"
#include "sequence/CKestorMetadataManager.h"
#include "sequence/MetadataLayout.h"
#include "sequence/PlaybackEngine.h"
#include "sequence/SequenceFileCheck.h"
#include "sequence/SequenceRecovery.h"

using namespace kestor;

namespace {

uint64_t RoundUp(uint64_t value, uint64_t unit) {
    return (value + unit - 1) / unit * unit;
}

size_t BufferAlignment(const DirectFile& file) {
    return std::max<size_t>(kDirectIoAlignment, file.MemoryAlignment());
}

}  // namespace

CKestorSequencerDisk::CKestorSequencerDisk() {
    ResetState();
}

CKestorSequencerDisk::~CKestorSequencerDisk() {
    // Playback reads through this object; it must end before the file goes away.
    Playback().Stop();
    Close();
}

bool CKestorSequencerDisk::Recover(const std::string& utf8Path, uint32_t& frames,
                                   eKErrorCode& error) {
    return RecoverSequenceFile(utf8Path, frames, error);
}

CKestorMetadataManager& CKestorSequencerDisk::Metadata() {
    if (!metadata_) metadata_ = std::make_unique<CKestorMetadataManager>();
    return *metadata_;
}

void CKestorSequencerDisk::ResetState() {
    header_.Reset();
    typeSection_.clear();
    fileName_.clear();
    readFrame_ = 0;
    writeFrame_ = 0;
    positionFrame_ = 0;
    frameMetadataSize_ = 0;
    modified_ = false;
    if (metadata_) metadata_->ClearFileTypes();
}

void CKestorSequencerDisk::CloseFile() {
    file_.Close();
    writerLock_.Close();
}

bool CKestorSequencerDisk::Create(const std::string& utf8Path) {
    std::lock_guard lock(mutex_);
    Close();
    if (utf8Path.empty()) return SetError(eKErrFileNotFound);
    // A write beyond the process's file-size limit must fail, not kill the recording process.
    IgnoreFileSizeSignal();

    FileOpenOptions options;
    options.write = true;
    options.create = true;
    options.truncate = true;  // only once the writer lock is held: a recording is never clobbered
    if (file_.Open(utf8Path, options) != 0) return SetError(eKErrInvalidFileHandle);
    if (file_.OffsetAlignment() == 0) {
        CloseFile();
        return SetError(eKErrBytesPerSectorZero);
    }
    bytesPerSector_ = std::max(file_.OffsetAlignment(), minimumSectorSize_);
    if (!WriteHeadBlock()) {
        CloseFile();
        return SetError(eKErrInvalidFileHandle);
    }
    fileName_ = utf8Path;
    positionFrame_ = 0;
    readFrame_ = 1;
    writeFrame_ = 1;
    modified_ = true;
    FramesChanged();
    return true;
}

bool CKestorSequencerDisk::Open(const std::string& utf8Path, bool& readOnly, bool& upgraded) {
    std::lock_guard lock(mutex_);
    Close();
    upgraded = false;
    if (utf8Path.empty()) return SetError(eKErrFileNotFound);

    FileOpenOptions options;
    options.write = !readOnly;
    int error = file_.Open(utf8Path, options);
    if (error != 0 && options.write) {
        // Typically another process is recording this file: it may still be read.
        Trace(u"Trying to open as read-only");
        options.write = false;
        error = file_.Open(utf8Path, options);
        if (error == 0) readOnly = true;
    }
    if (error != 0) return SetError(eKErrCreateOpenFile);
    if (options.write) IgnoreFileSizeSignal();

    const eKErrorCode failure = LoadExisting(utf8Path, upgraded);
    if (failure != eKErrSuccess) {
        CloseFile();
        ResetState();
        return SetError(failure);
    }
    fileName_ = utf8Path;
    positionFrame_ = 0;
    readFrame_ = 1;
    writeFrame_ = header_.data.allocatedFrames + 1;
    frameMetadataSize_ = header_.data.frameMetadataSize;
    modified_ = false;  // also after an upgrade: the old header stays until written for a reason
    FramesChanged();
    return true;
}

eKErrorCode CKestorSequencerDisk::LoadExisting(const std::string& utf8Path, bool& upgraded) {
    if (file_.OffsetAlignment() == 0) return eKErrBytesPerSectorZero;
    bytesPerSector_ = std::max(file_.OffsetAlignment(), minimumSectorSize_);
    const uint64_t size = file_.Size();
    if (size < kSequenceHeaderSize) return eKErrNoSequenceOrInvalidImage;
    if (!ReadBytes(0, kSequenceHeaderSize, &header_.data)) return eKErrNoSequenceOrInvalidImage;
    if (header_.Validate(upgraded) != eKErrSuccess) return eKErrNoSequenceOrInvalidImage;

    SequenceHeaderData& data = header_.data;
    if (!TypeSectionReadable(data, size)) DropMetadata(data);
    if (const eKErrorCode reason = CheckFrameLayout(data); reason != eKErrSuccess) {
        ReportDamage(reason);
        return eKErrNoSequenceOrInvalidImage;
    }
    const uint32_t complete = CompleteSlots(header_, size);
    if (data.allocatedFrames > complete) {
        Trace(WideFormatString(u"Frame count %u runs past the end of the file: %u complete "
                               u"frames are used",
                               data.allocatedFrames, complete)
                  .c_str());
        const bool rising = header_.TimestampsKnownToRise();
        data.allocatedFrames = complete;
        if (rising) header_.SetRisingFrames(complete);
    }

    if (data.typeSectionSize > 0) {
        typeSection_.resize(data.typeSectionSize);
        if (!ReadBytes(kSequenceHeaderSize, typeSection_.size(), typeSection_.data()))
            return eKErrNoSequenceOrInvalidImage;
        Metadata().LoadTypes();
        ImportTypeSection(typeSection_.data(), data.typeSectionSize, Metadata());
    } else if (data.frameMetadataSize > 0) {
        Metadata().LoadTypes();
    }

    // Slots laid out for a smaller sector than this volume's cannot be moved unbuffered.
    const uint32_t alignment = file_.OffsetAlignment();
    if (file_.IsDirect() &&
        (header_.FirstSlotOffset() % alignment != 0 || data.trueImageSize % alignment != 0)) {
        if (!SwitchToBuffered(utf8Path)) return eKErrCreateOpenFile;
    }
    return eKErrSuccess;
}

bool CKestorSequencerDisk::SwitchToBuffered(const std::string& utf8Path) {
    FileOpenOptions options;
    options.write = file_.IsWritable();
    options.direct = false;
    // The direct descriptor keeps the writer lock; a second one would be refused by it.
    options.exclusiveWriter = false;
    DirectFile buffered;
    if (buffered.Open(utf8Path, options) != 0) return false;
    if (options.write)
        writerLock_ = std::move(file_);
    else
        file_.Close();
    file_ = std::move(buffered);
    return true;
}

bool CKestorSequencerDisk::IsOpen() const {
    std::lock_guard lock(mutex_);
    return file_.IsOpen();
}

bool CKestorSequencerDisk::Close() {
    std::lock_guard lock(mutex_);
    if (!file_.IsOpen()) {
        ResetState();
        return true;
    }
    bool ok = true;
    if (modified_ && file_.IsWritable()) {
        ok = WriteHeadBlock();
        // Closing is the point where a recording is complete: make it durable.
        ok = file_.Flush() && ok;
    }
    CloseFile();
    ResetState();
    FramesChanged();
    return ok || SetError(eKErrWriteFailed);
}

bool CKestorSequencerDisk::WriteHeader() {
    std::lock_guard lock(mutex_);
    if (!file_.IsOpen() || !file_.IsWritable()) return SetError(eKErrNoSequenceOrInvalidImage);
    if (!WriteHeadBlock()) return SetError(eKErrWriteFailed);
    positionFrame_ = 0;
    return true;
}

bool CKestorSequencerDisk::WriteHeadBlock() {
    const size_t used = kSequenceHeaderSize + typeSection_.size();
    // Unbuffered writes cover whole sectors. Past `used` there is no frame yet whenever the
    // head is not sector-aligned (the first frame lays the file out aligned).
    const size_t length = file_.IsDirect() ? RoundUp(used, file_.OffsetAlignment()) : used;
    if (headBlock_.Alignment() < BufferAlignment(file_))
        headBlock_ = AlignedBuffer(0, BufferAlignment(file_));
    if (!headBlock_.Resize(length)) return false;
    std::memset(headBlock_.Data(), 0, length);
    std::memcpy(headBlock_.Data(), &header_.data, kSequenceHeaderSize);
    if (!typeSection_.empty())
        std::memcpy(headBlock_.Data() + kSequenceHeaderSize, typeSection_.data(),
                    typeSection_.size());
    return file_.WriteAt(headBlock_.Data(), length, 0);
}

bool CKestorSequencerDisk::ReadBytes(uint64_t offset, size_t bytes, void* out) {
    if (!file_.IsDirect()) return file_.ReadAt(out, bytes, offset);
    const uint64_t unit = file_.OffsetAlignment();
    const uint64_t start = offset / unit * unit;
    const uint64_t end = RoundUp(offset + bytes, unit);
    if (window_.Alignment() < BufferAlignment(file_))
        window_ = AlignedBuffer(0, BufferAlignment(file_));
    if (!window_.Resize(end - start)) return false;
    size_t done = 0;
    // The last sector of the file may be partial: what matters is that the wanted bytes came.
    file_.ReadAt(window_.Data(), end - start, start, &done);
    if (done < offset + bytes - start) return false;
    std::memcpy(out, window_.Data() + (offset - start), bytes);
    return true;
}

void CKestorSequencerDisk::SetReadFrame(uint32_t frame) {
    std::lock_guard lock(mutex_);
    if (frame == 0) frame = 1;
    readFrame_ = std::min(frame, header_.data.allocatedFrames);
}

uint32_t CKestorSequencerDisk::GetReadFrame() const {
    std::lock_guard lock(mutex_);
    return readFrame_;
}

void CKestorSequencerDisk::SetWriteFrame(uint32_t frame) {
    std::lock_guard lock(mutex_);
    if (frame != 0) writeFrame_ = frame;
}

uint32_t CKestorSequencerDisk::GetWriteFrame() const {
    std::lock_guard lock(mutex_);
    return writeFrame_;
}

void CKestorSequencerDisk::HeaderChanged() {
    std::lock_guard lock(mutex_);
    if (file_.IsOpen() && file_.IsWritable()) modified_ = true;
}

bool CKestorSequencerDisk::IsReadOnly() const {
    std::lock_guard lock(mutex_);
    return file_.IsOpen() && !file_.IsWritable();
}

bool CKestorSequencerDisk::IsDirect() const {
    std::lock_guard lock(mutex_);
    return file_.IsDirect();
}

uint32_t CKestorSequencerDisk::BytesPerSector() const {
    std::lock_guard lock(mutex_);
    return bytesPerSector_;
}

uint32_t CKestorSequencerDisk::PositionFrame() const {
    std::lock_guard lock(mutex_);
    return positionFrame_;
}

std::string CKestorSequencerDisk::FileName() const {
    std::lock_guard lock(mutex_);
    return fileName_;
}

void CKestorSequencerDisk::SetMinimumSectorSize(uint32_t bytes) {
    std::lock_guard lock(mutex_);
    // Only powers of two keep slots aligned for every smaller sector size too.
    minimumSectorSize_ = (bytes & (bytes - 1)) == 0 ? bytes : 0;
}
