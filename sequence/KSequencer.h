// Base of every sequencer variant (disk, RAM, compressed): the header copy, the lock, the
// application's callbacks, the timestamp search and the playback engine.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "KError.h"
#include "KImage.h"
#include "KSequence.h"
#include "sequence/SequenceHeader.h"
#include "sequence/TimestampIndex.h"

namespace kestor {
class PlaybackEngine;
}  // namespace kestor

class KSequencer : public KErrorDetect {
public:
    KSequencer();
    ~KSequencer() override;

    // --- lifecycle -----------------------------------------------------------------------
    virtual bool IsOpen() const = 0;
    // Writes back what must be written, releases the storage and resets the header.
    virtual bool Close() = 0;
    virtual bool IsRAM() const { return false; }
    virtual bool SupportRewrite() const { return true; }
    virtual eKCompression Compression() const {
        return static_cast<eKCompression>(header_.data.compression);
    }

    // --- frames (1-based) ----------------------------------------------------------------
    virtual bool Read(KImage* image, uint32_t frame) = 0;
    // Appends at (or overwrites) the write frame, then calls OnImageWrite outside the lock.
    virtual bool Write(KImage* image) = 0;
    // Keeps frames 1 .. count - 1.
    virtual bool Truncate(uint32_t count) = 0;
    virtual bool ReadTimestamp(uint32_t frame, uint32_t& seconds, uint16_t& milliseconds,
                               uint16_t& microseconds) = 0;
    virtual bool WriteHeader() { return true; }
    virtual uint32_t GetFrameCount() const;  // the header's allocated frames
    virtual bool PreAllocateImages(uint32_t imageSizeBytes, uint32_t count);  // 73 here
    virtual uint32_t GetPreAllocatedImages() const { return 0; }
    // Reorders the frames by timestamp (stable). 73 where a variant cannot.
    virtual bool Sort();

    // --- positions (1-based) -------------------------------------------------------------
    virtual void SetReadFrame(uint32_t frame) = 0;
    virtual uint32_t GetReadFrame() const = 0;
    virtual void SetWriteFrame(uint32_t frame) = 0;
    virtual uint32_t GetWriteFrame() const = 0;
    virtual void SetFrameRate(double rate);  // ignored unless above 0
    virtual double GetFrameRate() const;

    // --- header --------------------------------------------------------------------------
    // The header copy; callers hold Mutex() while they use it.
    kestor::SequenceHeader& Header() { return header_; }
    const kestor::SequenceHeader& Header() const { return header_; }
    std::recursive_mutex& Mutex() const { return mutex_; }
    // Marks the header as changed so that it is written back (at once or on close).
    virtual void HeaderChanged() {}
    // A readable dump of the header fields, one per line.
    std::string DumpHeader() const;

    // --- timestamp search ----------------------------------------------------------------
    // Exact match (the first frame with that timestamp) and nearest frame (ties: the earlier).
    bool GetIndexAt(int32_t seconds, uint16_t milliseconds, uint16_t microseconds, uint32_t& frame);
    bool GetIndexNear(int32_t seconds, uint16_t milliseconds, uint16_t microseconds,
                      uint32_t& frame);

    // --- callbacks and playback ----------------------------------------------------------
    // Null selects the built-in callbacks that do nothing.
    void SetCallbacks(KSequencerCallbacks* callbacks, uint32_t id, void* context);
    KSequencerCallbacks* Callbacks() const;
    uint32_t CallbackId() const { return callbackId_; }
    void* CallbackContext() const { return callbackContext_; }
    kestor::PlaybackEngine& Playback();

protected:
    // Variants call this first in their destructor: the playback thread reads through the
    // variant's virtual operations, so it must end before the variant is torn down.
    void ShutdownPlayback();
    // Variants call this after a frame was written, with their lock released.
    void NotifyImageWritten();
    // Variants call this when frames change other than by Write (truncate, open, close), so
    // cached timestamp knowledge is dropped.
    void FramesChanged();
    // Write calls this for every frame, under the lock and before the frame count is raised:
    // keeps the header's rising-timestamp record up to date and drops cached knowledge.
    void TrackRisingTimestamps(uint32_t frame, uint32_t seconds, uint16_t milliseconds,
                               uint16_t microseconds);

    mutable std::recursive_mutex mutex_;
    kestor::SequenceHeader header_;

private:
    kestor::TimestampIndex::Reader TimestampReader();

    KSequencerCallbacks* callbacks_ = nullptr;
    uint32_t callbackId_ = 0;
    void* callbackContext_ = nullptr;
    uint32_t lastSeconds_ = 0;
    uint16_t lastMilliseconds_ = 0;
    uint16_t lastMicroseconds_ = 0;
    bool lastKnown_ = false;  // the last* fields hold the last frame's timestamp
    std::unique_ptr<kestor::TimestampIndex> timestampIndex_;
    std::unique_ptr<kestor::PlaybackEngine> playback_;
};
