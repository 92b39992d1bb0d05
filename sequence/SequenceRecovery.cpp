#include "sequence/SequenceRecovery.h"

#include <cstring>
#include <tuple>

#include "platform/DirectFile.h"
#include "sequence/SequenceFileCheck.h"
#include "sequence/SequenceHeader.h"

namespace kestor {

namespace {

struct Stamp {
    int32_t seconds = 0;
    uint16_t milliseconds = 0;
    uint16_t microseconds = 0;

    bool WellFormed() const { return milliseconds < 1000 && microseconds < 1000; }
    bool WallClock() const { return WellFormed() && seconds >= kEarliestWallClockSeconds; }
    bool NotBefore(const Stamp& other) const {
        return std::tie(other.seconds, other.milliseconds, other.microseconds) <=
               std::tie(seconds, milliseconds, microseconds);
    }
};

// What one pass over the slots learns.
struct SlotSurvey {
    uint32_t lastWellFormed = 0;  // 1-based; 0 = none
    uint32_t lastWallClock = 0;
    uint32_t risingPrefix = 0;  // frames 1 .. risingPrefix are in time order
};

bool ReadStamp(DirectFile& file, uint64_t offset, Stamp& stamp) {
    uint8_t bytes[8];
    if (!file.ReadAt(bytes, sizeof bytes, offset)) return false;
    std::memcpy(&stamp.seconds, bytes, 4);
    std::memcpy(&stamp.milliseconds, bytes + 4, 2);
    std::memcpy(&stamp.microseconds, bytes + 6, 2);
    return true;
}

bool Survey(DirectFile& file, const SequenceHeader& header, uint32_t slots, SlotSurvey& survey) {
    Stamp previous;
    bool rising = true;
    for (uint32_t frame = 1; frame <= slots; ++frame) {
        Stamp stamp;
        if (!ReadStamp(file, header.SlotOffset(frame) + header.data.imageSizeBytes, stamp))
            return false;
        if (stamp.WellFormed()) survey.lastWellFormed = frame;
        if (stamp.WallClock()) survey.lastWallClock = frame;
        rising = rising && (frame == 1 || stamp.NotBefore(previous));
        if (rising) survey.risingPrefix = frame;
        previous = stamp;
    }
    return true;
}

bool Fail(eKErrorCode code, eKErrorCode& error) {
    error = code;
    return false;
}

}  // namespace

bool RecoverSequenceFile(const std::string& utf8Path, uint32_t& frames, eKErrorCode& error) {
    frames = 0;
    error = eKErrSuccess;
    if (utf8Path.empty()) return Fail(eKErrFileNotFound, error);

    // Buffered: recovery reads a few bytes per frame and must work whatever the file's layout.
    FileOpenOptions options;
    options.write = true;
    options.direct = false;
    DirectFile file;
    if (const int failure = file.Open(utf8Path, options); failure != 0)
        return Fail(failure == EWOULDBLOCK ? eKErrInvalidFileHandle : eKErrCreateOpenFile, error);

    const uint64_t size = file.Size();
    SequenceHeaderData original;
    if (size < kSequenceHeaderSize || !file.ReadAt(&original, sizeof original, 0))
        return Fail(eKErrNoSequenceOrInvalidImage, error);
    SequenceHeader header;
    header.data = original;
    bool upgraded = false;
    if (header.Validate(upgraded) != eKErrSuccess)
        return Fail(eKErrNoSequenceOrInvalidImage, error);
    if (!TypeSectionReadable(header.data, size)) {
        ReportDamage(eKErrInvalidDataLength);
        return Fail(eKErrNoSequenceOrInvalidImage, error);
    }
    if (const eKErrorCode reason = CheckFrameLayout(header.data); reason != eKErrSuccess) {
        ReportDamage(reason);
        return Fail(eKErrNoSequenceOrInvalidImage, error);
    }

    const uint32_t slots = CompleteSlots(header, size);
    SlotSurvey survey;
    if (!Survey(file, header, slots, survey)) return Fail(eKErrNoSequenceOrInvalidImage, error);
    const uint32_t kept = survey.lastWallClock > 0 ? survey.lastWallClock : survey.lastWellFormed;

    // Only the frame count and the time-order record change; an old header keeps its version.
    SequenceHeaderData corrected = original;
    corrected.allocatedFrames = kept;
    corrected.risingMarker = survey.risingPrefix >= kept ? kRisingTimestampsMarker : 0;
    corrected.risingFrames = survey.risingPrefix >= kept ? kept : 0;
    if (std::memcmp(&corrected, &original, sizeof corrected) != 0) {
        if (!file.WriteAt(&corrected, sizeof corrected, 0) || !file.Flush())
            return Fail(eKErrWriteFailed, error);
    }
    frames = kept;
    return true;
}

}  // namespace kestor
