#include "sequence/KSequencer.h"

#include <cstdio>

#include "KUtils.h"
#include "platform/WideString.h"
#include "sequence/PlaybackEngine.h"
#include "sequence/TimestampIndex.h"

namespace {

// The built-in callbacks: every operation does nothing.
KSequencerCallbacks g_noCallbacks;

}  // namespace

KSequencer::KSequencer() : timestampIndex_(std::make_unique<kestor::TimestampIndex>()) {}

// The playback thread reads through this object: it must be gone before the members are.
KSequencer::~KSequencer() {
    playback_.reset();
}

uint32_t KSequencer::GetFrameCount() const {
    std::lock_guard lock(mutex_);
    return header_.data.allocatedFrames;
}

bool KSequencer::PreAllocateImages(uint32_t, uint32_t) {
    return SetError(eKErrUnsupportedFeature);
}

bool KSequencer::Sort() {
    return SetError(eKErrUnsupportedFeature);
}

void KSequencer::SetFrameRate(double rate) {
    std::lock_guard lock(mutex_);
    if (!(rate > 0.0)) return;
    header_.data.frameRate = rate;
    HeaderChanged();
}

double KSequencer::GetFrameRate() const {
    std::lock_guard lock(mutex_);
    return header_.data.frameRate;
}

std::string KSequencer::DumpHeader() const {
    std::lock_guard lock(mutex_);
    const kestor::SequenceHeaderData& h = header_.data;
    std::string description;
    for (uint16_t unit : h.description) {
        if (unit == 0) break;
        description +=
            kestor::WideToUtf8(kestor::WideStringView(reinterpret_cast<const KChar*>(&unit), 1));
    }
    char text[2048];
    std::snprintf(
        text, sizeof text,
        "Magic: 0x%X\nVersion: %d\nHeader size: %u\nDescription: %s\nWidth: %u\nHeight: %u\n"
        "Bit depth: %u\nReal bit depth: %u\nImage size: %u\nImage format: %u (%s)\n"
        "Allocated frames: %u\nTrue image size: %u\nFrame rate: %.6f\nUser data: %u\n"
        "Description format: %u\nReference frame: %u\nFlags: 0x%X\nBayer origin: %u\n"
        "Time offset: %d\nCompression: %u (%s)\nReference time: %u.%03u.%03u\n"
        "Compression parameters: %u, %u\nFrame metadata size: %u\nMetadata type section: %u\n",
        h.magic, h.version, h.headerSize, description.c_str(), h.width, h.height, h.bitDepth,
        h.bitDepthReal, h.imageSizeBytes, h.imageFormat,
        KWideToUtf8(KImageFormatString(static_cast<eKImageFormat>(h.imageFormat))).c_str(),
        h.allocatedFrames, h.trueImageSize, h.frameRate, h.userData, h.descriptionFormat,
        h.referenceFrame, h.flags, h.bayerOrigin, h.timeOffset, h.compression,
        KWideToUtf8(KImageCompressionString(static_cast<eKCompression>(h.compression))).c_str(),
        h.referenceSeconds, h.referenceMilliseconds, h.referenceMicroseconds,
        h.compressionParameter1, h.compressionParameter2, h.frameMetadataSize, h.typeSectionSize);
    return text;
}

kestor::TimestampIndex::Reader KSequencer::TimestampReader() {
    return [this](uint32_t frame, kestor::Timestamp& time) {
        uint32_t seconds = 0;
        const bool ok = ReadTimestamp(frame, seconds, time.milliseconds, time.microseconds);
        time.seconds = static_cast<int32_t>(seconds);
        return ok;
    };
}

bool KSequencer::GetIndexAt(int32_t seconds, uint16_t milliseconds, uint16_t microseconds,
                            uint32_t& frame) {
    std::lock_guard lock(mutex_);
    if (!timestampIndex_->FindExact({seconds, milliseconds, microseconds}, GetFrameCount(),
                                    header_.TimestampsKnownToRise(), TimestampReader(), frame))
        return SetError(eKErrInvalidIndex);
    return true;
}

bool KSequencer::GetIndexNear(int32_t seconds, uint16_t milliseconds, uint16_t microseconds,
                              uint32_t& frame) {
    std::lock_guard lock(mutex_);
    if (!timestampIndex_->FindNearest({seconds, milliseconds, microseconds}, GetFrameCount(),
                                      header_.TimestampsKnownToRise(), TimestampReader(), frame))
        return SetError(eKErrInvalidIndex);
    return true;
}

void KSequencer::SetCallbacks(KSequencerCallbacks* callbacks, uint32_t id, void* context) {
    std::lock_guard lock(mutex_);
    callbacks_ = callbacks;
    callbackId_ = id;
    callbackContext_ = context;
}

KSequencerCallbacks* KSequencer::Callbacks() const {
    std::lock_guard lock(mutex_);
    return callbacks_ != nullptr ? callbacks_ : &g_noCallbacks;
}

void KSequencer::ShutdownPlayback() {
    std::unique_ptr<kestor::PlaybackEngine> engine;
    {
        std::lock_guard lock(mutex_);
        engine = std::move(playback_);
    }
    engine.reset();  // joins the thread outside the lock
}

kestor::PlaybackEngine& KSequencer::Playback() {
    std::lock_guard lock(mutex_);
    if (!playback_) playback_ = std::make_unique<kestor::PlaybackEngine>(*this);
    return *playback_;
}

void KSequencer::NotifyImageWritten() {
    KSequencerCallbacks* callbacks;
    uint32_t id;
    void* context;
    {
        std::lock_guard lock(mutex_);
        callbacks = callbacks_ != nullptr ? callbacks_ : &g_noCallbacks;
        id = callbackId_;
        context = callbackContext_;
    }
    callbacks->OnImageWrite(id, context);
}

void KSequencer::FramesChanged() {
    std::lock_guard lock(mutex_);
    timestampIndex_->Invalidate();
    lastKnown_ = false;
}

void KSequencer::TrackRisingTimestamps(uint32_t frame, uint32_t seconds, uint16_t milliseconds,
                                       uint16_t microseconds) {
    timestampIndex_->Invalidate();
    const uint32_t count = header_.data.allocatedFrames;
    if (frame == 1 && count <= 1) {
        header_.SetRisingFrames(1);
    } else if (frame == count + 1 && header_.TimestampsKnownToRise()) {
        if (!lastKnown_) {
            // Reopened for appending: the last frame's time is on disk, not in memory.
            ReadTimestamp(count, lastSeconds_, lastMilliseconds_, lastMicroseconds_);
        }
        if (CompareTimestamps(static_cast<int32_t>(lastSeconds_), lastMilliseconds_,
                              lastMicroseconds_, static_cast<int32_t>(seconds), milliseconds,
                              microseconds) <= 0)
            header_.SetRisingFrames(frame);
        else
            header_.ForgetRisingFrames();
    } else {
        header_.ForgetRisingFrames();  // an overwrite or a gap: order no longer known
    }
    lastSeconds_ = seconds;
    lastMilliseconds_ = milliseconds;
    lastMicroseconds_ = microseconds;
    lastKnown_ = frame == header_.data.allocatedFrames + 1;
}
