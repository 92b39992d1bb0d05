// Records uncompressed frames straight to a sequence file and reads them back. Frames bypass
// the page cache (unbuffered I/O), so a camera's full rate reaches the disk without competing
// with cached data; every slot is a whole number of sectors for that reason.
//
// Only one writer may hold a file at a time; readers are always welcome, also while a file is
// being recorded.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "KError.h"
#include "KImage.h"
#include "platform/AlignedMemory.h"
#include "platform/DirectFile.h"
#include "sequence/KSequencer.h"
#include "sequence/SlotTransfer.h"

class CKestorImage;
class CKestorMetadataManager;

class CKestorSequencerDisk : public KSequencer {
public:
    CKestorSequencerDisk();
    ~CKestorSequencerDisk() override;
    CKestorSequencerDisk(const CKestorSequencerDisk&) = delete;
    CKestorSequencerDisk& operator=(const CKestorSequencerDisk&) = delete;

    // Creates (or replaces) a file and writes a fresh header. Fails with 46 when the file
    // cannot be created, also when another writer is recording it (it is then left alone).
    bool Create(const std::string& utf8Path);
    // Opens an existing file. `readOnly` in: open for reading only; out: true when a writable
    // open was refused (for example another writer holds the file) and the file was opened for
    // reading instead. `upgraded`: an old header was brought up to date in memory.
    bool Open(const std::string& utf8Path, bool& readOnly, bool& upgraded);
    // Rebuilds the frame count of a file whose recording ended without a close (a crash, a
    // kill, a power cut) from its length and slot size; see SequenceRecovery.h.
    static bool Recover(const std::string& utf8Path, uint32_t& frames, eKErrorCode& error);

    bool IsOpen() const override;
    bool Close() override;

    bool Read(KImage* image, uint32_t frame) override;
    bool Write(KImage* image) override;
    bool Truncate(uint32_t count) override;
    bool ReadTimestamp(uint32_t frame, uint32_t& seconds, uint16_t& milliseconds,
                       uint16_t& microseconds) override;
    bool WriteHeader() override;
    // Stable sort of the frames by timestamp, in place in the file.
    bool Sort() override;

    void SetReadFrame(uint32_t frame) override;
    uint32_t GetReadFrame() const override;
    void SetWriteFrame(uint32_t frame) override;
    uint32_t GetWriteFrame() const override;
    void HeaderChanged() override;

    // --- disk specifics --------------------------------------------------------------------
    bool IsReadOnly() const;
    // Frames go to the disk without the page cache (false on volumes that refuse it and for
    // files laid out for another sector size).
    bool IsDirect() const;
    // The unit of slot rounding for new files.
    uint32_t BytesPerSector() const;
    // Frame whose slot the last transfer ended at; 0 is the file start.
    uint32_t PositionFrame() const;
    std::string FileName() const;
    // Lays new files out for sectors of at least `bytes` (a power of two; 0 = the volume's own),
    // so that they can be moved to volumes with larger sectors and still be recorded and read
    // without buffering. Takes effect at the next Create.
    void SetMinimumSectorSize(uint32_t bytes);

private:
    void CloseFile();
    void ResetState();
    eKErrorCode LoadExisting(const std::string& utf8Path, bool& upgraded);
    bool SwitchToBuffered(const std::string& utf8Path);
    // Reads any byte range; in direct mode through the aligned window of sectors around it.
    bool ReadBytes(uint64_t offset, size_t bytes, void* out);
    // Header and type section, as they begin the file.
    bool WriteHeadBlock();
    CKestorMetadataManager& Metadata();

    // Writing (CKestorSequencerDiskWrite.cpp).
    bool LayOutFor(KImage& image, CKestorImage& frame);
    void BuildTrailer(const CKestorImage& frame);
    bool WriteSlot(const CKestorImage& frame, uint64_t offset);

    kestor::DirectFile file_;
    // Holds the single-writer lock while frames go through a buffered descriptor (files laid
    // out for another sector size).
    kestor::DirectFile writerLock_;
    kestor::SlotTransfer slots_;
    kestor::AlignedBuffer headBlock_;
    kestor::AlignedBuffer window_;      // sector window of small reads, planar frame assembly
    std::vector<uint8_t> typeSection_;  // as stored behind the header
    std::vector<uint8_t> trailer_;      // timestamp and metadata area of the frame being written
    std::unique_ptr<CKestorMetadataManager> metadata_;
    std::string fileName_;
    uint32_t bytesPerSector_ = 0;
    uint32_t minimumSectorSize_ = 0;
    uint32_t readFrame_ = 0;
    uint32_t writeFrame_ = 0;
    uint32_t positionFrame_ = 0;
    uint32_t frameMetadataSize_ = 0;
    bool modified_ = false;
};
