// A sequencer whose frames live in a vector: each frame is a 4-byte mono image holding its frame
// number, with a timestamp chosen by the test. Counts the timestamp reads.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <vector>

#include "KSequence.h"
#include "sequence/KSequencer.h"
#include "sequence/PlaybackEngine.h"
#include "sequence/TimestampIndex.h"

namespace kestor::test {

// Frames 1 to N stamped `offsetsMs` milliseconds after a fixed second.
inline std::vector<Timestamp> TimesAtMilliseconds(const std::vector<int64_t>& offsetsMs) {
    constexpr int32_t kBaseSeconds = 1700000000;
    std::vector<Timestamp> times;
    for (int64_t offset : offsetsMs)
        times.push_back(Timestamp{kBaseSeconds + static_cast<int32_t>(offset / 1000),
                                  static_cast<uint16_t>(offset % 1000), 0});
    return times;
}

inline int64_t ToMicroseconds(const Timestamp& time) {
    return int64_t{time.seconds} * 1000000 + time.milliseconds * 1000 + time.microseconds;
}

class FakeSequencer : public KSequencer {
public:
    explicit FakeSequencer(std::vector<Timestamp> times = {}, double frameRate = 30.0) {
        header_.data.frameRate = frameRate;
        SetTimes(std::move(times));
    }
    // A variant stops playback before its frames go: the playback thread reads them.
    ~FakeSequencer() override { Playback().Stop(); }

    void SetTimes(std::vector<Timestamp> times) {
        std::lock_guard lock(mutex_);
        times_ = std::move(times);
        header_.data.allocatedFrames = static_cast<uint32_t>(times_.size());
        readFrame_ = times_.empty() ? 0 : 1;
        FramesChanged();
    }
    void MarkRising() {
        std::lock_guard lock(mutex_);
        header_.SetRisingFrames(header_.data.allocatedFrames);
    }
    int TimestampReads() const { return timestampReads_; }

    bool IsOpen() const override { return true; }
    bool Close() override { return true; }
    bool Read(KImage* image, uint32_t frame) override {
        std::lock_guard lock(mutex_);
        if (image == nullptr || frame == 0 || times_.empty()) return SetError(eKErrInvalidIndex);
        frame = std::min<uint32_t>(frame, static_cast<uint32_t>(times_.size()));
        if (image->GetImageWidth() != 4 && !image->ReallocateImage(4, 1, 8, 8, eKFormatMono))
            return SetError(eKErrOutOfMemory);
        std::memcpy(image->GetRawImageData(), &frame, sizeof frame);
        const Timestamp& time = times_[frame - 1];
        image->SetTimestamp(static_cast<uint32_t>(time.seconds), time.milliseconds,
                            time.microseconds);
        return true;
    }
    bool Write(KImage*) override { return SetError(eKErrUnsupportedFeature); }
    bool Truncate(uint32_t) override { return SetError(eKErrUnsupportedFeature); }
    bool ReadTimestamp(uint32_t frame, uint32_t& seconds, uint16_t& milliseconds,
                       uint16_t& microseconds) override {
        std::lock_guard lock(mutex_);
        ++timestampReads_;
        seconds = 0;
        milliseconds = microseconds = 0;
        if (frame == 0 || times_.empty()) return SetError(eKErrInvalidIndex);
        const Timestamp& time =
            times_[std::min<uint32_t>(frame, static_cast<uint32_t>(times_.size())) - 1];
        seconds = static_cast<uint32_t>(time.seconds);
        milliseconds = time.milliseconds;
        microseconds = time.microseconds;
        return true;
    }
    void SetReadFrame(uint32_t frame) override {
        std::lock_guard lock(mutex_);
        readFrame_ = std::clamp<uint32_t>(frame, 1, std::max<uint32_t>(1, times_.size()));
    }
    uint32_t GetReadFrame() const override {
        std::lock_guard lock(mutex_);
        return readFrame_;
    }
    void SetWriteFrame(uint32_t) override {}
    uint32_t GetWriteFrame() const override { return 0; }

    // The frame number that Read stored in an image.
    static uint32_t FrameIn(const KImage* image) {
        uint32_t frame = 0;
        if (image != nullptr && image->GetRawImageData() != nullptr)
            std::memcpy(&frame, image->GetRawImageData(), sizeof frame);
        return frame;
    }

private:
    std::vector<Timestamp> times_;
    uint32_t readFrame_ = 0;
    std::atomic<int> timestampReads_{0};
};

}  // namespace kestor::test
