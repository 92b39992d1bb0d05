// Records a sequence into main memory: one slot per frame, kept in recording order, so that a
// camera can be recorded at rates no disk sustains and read back, replayed or truncated.
//
// A slot holds the pixels, the 8-byte timestamp behind them and zeroed room for metadata (the
// items themselves travel in the frame record). Slots come from private pools that are backed
// by memory before a frame is copied in, so a full system gives 63 instead of a crash, and that
// Close unmaps whole, however many frames they held.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "KImage.h"
#include "sequence/KSequencer.h"
#include "sequence/RamSlotPools.h"

class CKestorSequencerRAM : public KSequencer {
public:
    CKestorSequencerRAM();
    ~CKestorSequencerRAM() override;

    // Closes whatever is held and starts an empty sequence (positions 1, frame rate 0).
    bool Open();
    bool IsOpen() const override;
    bool IsRAM() const override { return true; }
    // Releases every slot at once.
    bool Close() override;

    // 47 not open, no pixel buffer or recording position 0; 64 the image does not match the
    // first frame; 63 no slot could be had (frames already held stay).
    bool Write(KImage* image) override;
    // 47 not open; 62 frame 0, a null image or an empty sequence (the image is left empty).
    // Frames past the end read the last frame.
    bool Read(KImage* image, uint32_t frame) override;
    bool ReadTimestamp(uint32_t frame, uint32_t& seconds, uint16_t& milliseconds,
                       uint16_t& microseconds) override;
    // Keeps frames 1 .. count - 1; their slots go back to the pool for reuse.
    bool Truncate(uint32_t count) override;
    // Stable sort of the frames by timestamp; moves records, never pixels.
    bool Sort() override;

    // Makes `count` empty slots for frames of `imageSizeBytes` ahead of recording, backed by
    // memory now. The metadata room is the metadata manager's maximum size; Write uses the
    // spares only when that gives its own slot size. Spares of another size are discarded first.
    bool PreAllocateImages(uint32_t imageSizeBytes, uint32_t count) override;
    uint32_t GetPreAllocatedImages() const override;

    // Playback position (1 .. frame count) and recording position (no upper bound: writing past
    // the end creates zero-filled frames in between).
    void SetReadFrame(uint32_t frame) override;
    uint32_t GetReadFrame() const override { return playbackPosition_.load(); }
    void SetWriteFrame(uint32_t frame) override;
    uint32_t GetWriteFrame() const override { return recordingPosition_.load(); }

    // Most bytes of slots the sequence may hold (frames and spares; 0: as much as the system
    // gives). Reaching it makes Write and PreAllocateImages fail with 63. Kept across Close.
    void SetMemoryLimit(uint64_t bytes);
    // Slot memory held now, in bytes (frames and spares).
    uint64_t GetMemoryHeld() const;

private:
    struct FrameRecord {
        uint8_t* slot = nullptr;
        std::vector<KMetadata> metadata;
        uint16_t metadataCapacity = 0;
    };

    void ReleaseEverything();  // caller holds the lock
    void ResetHeader();
    void DiscardSpares();
    bool AppendSlot(bool useSpares);
    void StoreFrame(FrameRecord& record, const KImage& image) const;
    void LoadFrame(const FrameRecord& record, CKestorImage& image) const;
    // The slot of frame `frame` after clamping to the count; null for an empty sequence.
    const FrameRecord* ClampedRecord(uint32_t frame) const;
    void SyncFrameCount();

    std::atomic<bool> open_{false};
    KImageDescription image_;  // fixed by the first frame
    uint32_t slotSize_ = 0;
    std::atomic<uint32_t> playbackPosition_{0};
    std::atomic<uint32_t> recordingPosition_{0};
    std::vector<FrameRecord> frames_;  // index 0 is frame 1
    std::vector<uint8_t*> spares_;     // taken from the back
    uint32_t spareSlotSize_ = 0;       // 0 when there are none
    kestor::RamSlotPools pools_;
};
